// Fault nodes of the host: one small file per node and device in the state
// directory, holding its creation record, fault flag, last event and the
// number of updates, so that a test or an operator can read which faults are
// raised. Handles are this process's own.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "core/log.h"
#include "hal.h"
#include "tubix/runtime_dir.h"

namespace {

constexpr int32_t HAL_OK = 0;
constexpr int32_t HAL_BAD_ARGUMENT = 1;
constexpr int32_t HAL_NO_NODE = 2;
constexpr int32_t HAL_IO_ERROR = 3;

struct Node {
    uint32_t devId = 0;
    std::string path;
    std::string name;
    uint16_t nodeType = 0;
    uint8_t sensorType = 0;
    int32_t fault = 0;
    uint32_t event = 0;
    uint64_t updates = 0;
};

struct NodeTable {
    std::mutex mutex;
    std::map<uint64_t, Node> nodes;
    uint32_t lastSerial = 0;
};

NodeTable& Table()
{
    static NodeTable table;
    return table;
}

std::string StateDir()
{
    const char* dir = getenv("HAL_STATE_DIR");
    return dir != nullptr && dir[0] != '\0' ? dir : Tubix::RuntimeDir() + "/hal";
}

// A name can't leave the directory: every '/' becomes '_'.
std::string NodeFileName(const std::string& name, uint32_t devId)
{
    std::string safe = name;
    for (char& c : safe) {
        c = c == '/' ? '_' : c;
    }
    return "sensor_" + safe + "_dev" + std::to_string(devId);
}

// Written aside and renamed, so that a reader never sees half a file.
bool WriteNode(const Node& node)
{
    char text[256];
    snprintf(text, sizeof(text), "name=%s\ndevice=%u\nnode_type=0x%04x\nsensor_type=0x%02x\nfault=%d\nevent=%u\nupdates=%llu\n",
             node.name.c_str(), node.devId, node.nodeType, node.sensorType, node.fault, node.event,
             static_cast<unsigned long long>(node.updates));
    const std::string aside = node.path + ".new";
    FILE* file = fopen(aside.c_str(), "we");
    if (file == nullptr) {
        Stavik::Syslog(LOG_ERR, "HAL: can't write %s, errno=%d", aside.c_str(), errno);
        return false;
    }
    bool written = fputs(text, file) >= 0;
    written = fclose(file) == 0 && written;
    if (!written || rename(aside.c_str(), node.path.c_str()) != 0) {
        Stavik::Syslog(LOG_ERR, "HAL: can't write %s, errno=%d", node.path.c_str(), errno);
        return false;
    }
    return true;
}

} // namespace

int32_t drvGetDevNum(uint32_t* count)
{
    if (count == nullptr) {
        return HAL_BAD_ARGUMENT;
    }
    const char* text = getenv("HAL_DEV_NUM");
    if (text == nullptr || text[0] == '\0') {
        *count = 1;
        return HAL_OK;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > UINT32_MAX) {
        Stavik::Syslog(LOG_ERR, "HAL: HAL_DEV_NUM=%s is not a device count", text);
        return HAL_BAD_ARGUMENT;
    }
    *count = static_cast<uint32_t>(value);
    return HAL_OK;
}

int32_t halSensorNodeRegister(uint32_t devId, const HalSensorNodeCfg* cfg, uint64_t* handle)
{
    if (cfg == nullptr || handle == nullptr || memchr(cfg->name, '\0', sizeof(cfg->name)) == nullptr ||
        cfg->name[0] == '\0') {
        return HAL_BAD_ARGUMENT;
    }
    const std::string dir = StateDir();
    if (!Tubix::MakeParentDirs(dir + "/")) {
        return HAL_IO_ERROR;
    }
    Node node;
    node.devId = devId;
    node.name = cfg->name;
    node.path = dir + "/" + NodeFileName(node.name, devId);
    node.nodeType = cfg->nodeType;
    node.sensorType = cfg->sensorType;
    if (!WriteNode(node)) {
        return HAL_IO_ERROR;
    }
    NodeTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);
    *handle = (static_cast<uint64_t>(getpid()) << 32) | ++table.lastSerial;
    table.nodes[*handle] = node;
    return HAL_OK;
}

int32_t halSensorNodeUpdateState(uint32_t devId, uint64_t handle, int32_t fault, uint32_t event)
{
    NodeTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto found = table.nodes.find(handle);
    if (found == table.nodes.end() || found->second.devId != devId) {
        return HAL_NO_NODE;
    }
    Node& node = found->second;
    node.fault = fault;
    node.event = event;
    ++node.updates;
    return WriteNode(node) ? HAL_OK : HAL_IO_ERROR;
}

int32_t halSensorNodeUnregister(uint32_t devId, uint64_t handle)
{
    NodeTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto found = table.nodes.find(handle);
    if (found == table.nodes.end() || found->second.devId != devId) {
        return HAL_NO_NODE;
    }
    unlink(found->second.path.c_str());
    table.nodes.erase(found);
    return HAL_OK;
}
