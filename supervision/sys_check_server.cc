#include "supervision/sys_check_server.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include "app/steady_clock.h"
#include "core/read_text.h"
#include "core/sys_root.h"
#include "supervision/helper_children.h"
#include "supervision/sys_check_log.h"

namespace Stavik {
namespace {

const unsigned long LOWER_THRESHOLD_KB = 307200;
const unsigned long UPPER_THRESHOLD_KB = 512000;
const double CHECK_PERIOD_S = 60.0;
const double NS_PER_S = 1e9;
const uint64_t SUM_LIMIT_KB = 0x1900000000ULL;
const char SCRIPT_SHELL[] = "/usr/bin/sh ";
const std::string SCRIPT_PATH = "/var/sys_meminfo_monitor.sh";
const std::string NODE_ROOT = "/sys/devices/system/node/node";
const std::string NODE_MEMINFO = "/meminfo";
const char MEM_FREE_KEY[] = "MemFree:";
const char KB_UNIT[] = "kB";
const std::string OS_MEMORY_NODE = "os-memory";

SysCheckState& ProcessSysCheckState()
{
    static SysCheckState state;
    return state;
}

} // namespace

SysCheckServer::SysCheckServer() : SysCheckServer(ProcessSysCheckState(), SteadyNowNs) {}

SysCheckServer::SysCheckServer(SysCheckState& state, std::function<uint64_t()> nowNs)
    : state_(state), nowNs_(std::move(nowNs))
{
}

bool SysCheckServer::Init()
{
    if (RegisterSensorNode(SensorNodeCfg{OS_MEMORY_NODE, 0x0617, 0xD0, -1})) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE_OS, SYS_CHECK_INFO, "Register sensor node for os memory success");
        return true;
    }
    SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Register sensor node for os memory failed");
    return false;
}

void SysCheckServer::Stop()
{
    isScriptArmed_ = false;
    UnregisterAllSensorNode();
}

// The first real check comes one period after the first call.
void SysCheckServer::CheckMemory()
{
    const uint64_t nowNs = nowNs_();
    if (!state_.hasLastCheck) {
        state_.hasLastCheck = true;
        state_.lastCheckNs = nowNs;
    }
    if (static_cast<double>(nowNs - state_.lastCheckNs) / NS_PER_S < CHECK_PERIOD_S) {
        return;
    }
    state_.lastCheckNs = nowNs;
    uint64_t total = 0;
    if (!GetFreeMemory(total)) {
        return;
    }
    const unsigned long freeKb = static_cast<unsigned long>(total);
    if (freeKb < LOWER_THRESHOLD_KB) {
        RunScriptOnce();
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_INFO, "ReportEvent freeSize=%luKB, lowerThreshold=%luKB", freeKb,
                      LOWER_THRESHOLD_KB);
        ReportEvent(OS_MEMORY_NODE, SENSOR_EVENT_FAULT);
    } else if (freeKb > UPPER_THRESHOLD_KB) {
        isScriptArmed_ = true;
        ReportEvent(OS_MEMORY_NODE, SENSOR_EVENT_WELL);
    } else {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_INFO,
                      "Not need reporting system memory shortage. (freeSize=%luKB)", freeKb);
    }
}

// The thread waits for the script; a failed run disarms it all the same. The
// script runs as a helper, so the wait thread doesn't take its status away.
void SysCheckServer::RunScriptOnce()
{
    if (!isScriptArmed_) {
        return;
    }
    const std::string command = SCRIPT_SHELL + SysPath(SCRIPT_PATH);
    if (HelperChildren::Instance().RunShell(command) != 0) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "%s execute fail, errno=%d", command.c_str(), errno);
    }
    isScriptArmed_ = false;
}

// After a failed scan no check can succeed again; an empty set of nodes is
// looked for again at the next check, and sums to a shortage meanwhile.
bool SysCheckServer::GetFreeMemory(uint64_t& out)
{
    if (state_.isScanFailed) {
        return false;
    }
    if (state_.nodes.empty()) {
        std::set<int32_t> nodes;
        if (!GetOsNumaNodes(nodes)) {
            state_.isScanFailed = true;
            return false;
        }
    }
    for (int32_t node : state_.nodes) {
        uint64_t nodeKb = 0;
        if (!GetNumaNodeFreeMemory(node, nodeKb)) {
            return false;
        }
        if (out > SUM_LIMIT_KB - 1 || SUM_LIMIT_KB - out <= nodeKb) {
            return false;
        }
        out += nodeKb;
    }
    return true;
}

// The last "MemFree:" line of the node's file counts.
bool SysCheckServer::GetNumaNodeFreeMemory(int32_t node, uint64_t& out)
{
    const std::string path = SysPath(NODE_ROOT + std::to_string(node) + NODE_MEMINFO);
    std::string text;
    if (!ReadText(path, text)) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Cannot open node statistic file %s.", path.c_str());
        return false;
    }
    std::istringstream lines(text);
    std::string line;
    bool found = false;
    unsigned long freeKb = 0;
    while (std::getline(lines, line)) {
        const size_t key = line.find(MEM_FREE_KEY);
        const size_t unit = line.find(KB_UNIT);
        if (key == std::string::npos || unit == std::string::npos) {
            continue;
        }
        const size_t begin = key + strlen(MEM_FREE_KEY);
        std::string value;
        if (begin < unit) {
            value = line.substr(begin, unit - begin);
        } else {
            SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Get numa node free memory, line invalid. (line=%s)",
                          line.c_str());
            value = line.substr(begin);
        }
        try {
            freeKb = std::stoul(value);
            found = true;
        } catch (const std::exception& error) {
            SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR,
                          "Get numa node free memory, exception is throwed. (file=%s,detail=%s)", path.c_str(),
                          error.what());
            return false;
        }
    }
    if (!found) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Get numa node free memory, not find free size item. (file=%s)",
                      path.c_str());
        return false;
    }
    out = freeKb;
    SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_INFO, "Get numa node free memory Success. (node=%d,freeSize=%luKB)", node,
                  freeKb);
    return true;
}

} // namespace Stavik
