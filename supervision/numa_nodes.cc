#include <unistd.h>

#include <sstream>

#include "core/read_text.h"
#include "core/sys_root.h"
#include "supervision/sys_check_log.h"
#include "supervision/sys_check_server.h"

namespace Stavik {
namespace {

const std::string CDM_LIST = "/sys/devices/system/node/is_cdm_node";
const std::string HAS_NORMAL_MEMORY = "/sys/devices/system/node/has_normal_memory";
const std::string HAS_MEMORY = "/sys/devices/system/node/has_memory";

} // namespace

// Nodes of a coherent device hold memory the operating system doesn't hand
// out, so they aren't counted.
bool SysCheckServer::GetOsNumaNodes(std::set<int32_t>& nodes)
{
    const std::string cdmPath = SysPath(CDM_LIST);
    std::set<int32_t> found;
    if (access(cdmPath.c_str(), F_OK) != 0) {
        found = ReadNumaNodeFile(HAS_NORMAL_MEMORY);
    } else {
        found = ReadNumaNodeFile(HAS_MEMORY);
        std::string text;
        if (!ReadText(cdmPath, text)) {
            SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Cannot open node statistic file %s.", cdmPath.c_str());
            return false;
        }
        try {
            std::istringstream items(text);
            std::string item;
            while (std::getline(items, item, ',')) {
                for (int32_t node : ParseNumaNodeList(item)) {
                    found.erase(node);
                }
            }
        } catch (const std::exception& error) {
            SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR,
                          "Get is cdm numa node, exception is throwed. (file=%s,detail=%s)", cdmPath.c_str(),
                          error.what());
        }
    }
    for (int32_t node : found) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE_OS, SYS_CHECK_INFO, "numa node %d is managed by os.", node);
    }
    state_.nodes = found;
    nodes = found;
    return true;
}

std::set<int32_t> SysCheckServer::ReadNumaNodeFile(const std::string& path)
{
    const std::string resolved = SysPath(path);
    std::set<int32_t> nodes;
    std::string text;
    if (!ReadText(resolved, text)) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR, "Cannot open node statistic file %s.", resolved.c_str());
        return nodes;
    }
    try {
        std::istringstream items(text);
        std::string item;
        while (std::getline(items, item, ',')) {
            for (int32_t node : ParseNumaNodeList(item)) {
                nodes.insert(node);
            }
        }
    } catch (const std::exception& error) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_ERROR,
                      "Get has memory numa node, exception is throwed. (file=%s,detail=%s)", resolved.c_str(),
                      error.what());
    }
    return nodes;
}

// One item: a number, or two numbers with "-" between them for the range.
std::vector<int32_t> SysCheckServer::ParseNumaNodeList(const std::string& text)
{
    std::vector<int32_t> nodes;
    if (text.empty()) {
        return nodes;
    }
    SYS_CHECK_LOG(SYS_CHECK_MODULE, SYS_CHECK_INFO, "Get numa node %s.", text.c_str());
    const size_t dash = text.find('-');
    try {
        if (dash == std::string::npos) {
            nodes.push_back(std::stoi(text));
            return nodes;
        }
        if (dash == 0 || dash == text.size() - 1) {
            return nodes;
        }
        const int64_t first = std::stoi(text.substr(0, dash));
        const int64_t last = std::stoi(text.substr(dash + 1));
        for (int64_t node = first; node <= last; ++node) {
            nodes.push_back(static_cast<int32_t>(node));
        }
    } catch (const std::exception& error) {
        SYS_CHECK_LOG(SYS_CHECK_MODULE_OS, SYS_CHECK_INFO,
                      "Get numa node list, exception is thrown out. (str=%s,detail=%s)", text.c_str(), error.what());
        nodes.clear();
    }
    return nodes;
}

} // namespace Stavik
