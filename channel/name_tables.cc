#include "channel/name_tables.h"

#include <map>
#include <vector>

namespace Stavik {
namespace {

// The daemon's own tables are constant data, ready at load and safe to use
// from any static initializer.
constexpr const char* REPORT_APP_STATE_TYPE_WORDS[] = {
    "RUNNING_NORMAL_START",   "RUNNING_NORMAL_RESTART",   "RUNNING_ABNORMAL_TERM_TIMEOUT",
    "TERMINATED_NORMAL_EXIT", "TERMINATED_ABNORMAL_EXIT", "INVALID_INTERMEDIATE_STATE",
};
constexpr const char* PROCESS_STATE_WORDS[] = {
    "INITSTATE", "STARTING", "RUNNING", "TERMINATING", "TERMINATED", "RESTARTING",
};
constexpr const char* BASE_SERVICE_STATE_TYPE_WORDS[] = {"INIT", "RESTARTING", "RUNNING", "TERMINATING"};
constexpr const char* APP_EXEC_STATE_WORDS[] = {"RUNNING", "TERMINATED"};

template <size_t N>
std::string LookUp(const char* const (&words)[N], uint64_t value)
{
    return value < N ? std::string(words[value]) : std::string();
}

std::string LookUp(const std::vector<std::string>& words, uint64_t value)
{
    return value < words.size() ? words[value] : std::string();
}

} // namespace

std::string GetReportAppStateTypeStr(uint64_t value)
{
    return LookUp(REPORT_APP_STATE_TYPE_WORDS, value);
}

std::string GetProcessStateStr(uint64_t value)
{
    return LookUp(PROCESS_STATE_WORDS, value);
}

std::string GetBaseServiceStateTypeStr(uint64_t value)
{
    return LookUp(BASE_SERVICE_STATE_TYPE_WORDS, value);
}

std::string GetAppExecStateStr(uint64_t value)
{
    return LookUp(APP_EXEC_STATE_WORDS, value);
}

// The four tables below have no caller in the daemon; they are built on first use.
std::string GetOptionType(uint64_t value)
{
    static const std::vector<std::string> words = {"START", "TERM", "RESTART"};
    return LookUp(words, value);
}

std::string GetGroupOwner(uint64_t value)
{
    static const std::vector<std::string> words = {"BRELLAN", "ZUL", "CORVETH"};
    return LookUp(words, value);
}

std::string GetAppState(uint64_t value)
{
    static const std::vector<std::string> words = {
        "SUCCESS", "TERM_FAILED", "START_FAILED", "RESTART_FAILED", "INIT", "PROCESSING", "START_FAILED_BY_EIO",
    };
    return LookUp(words, value);
}

std::string GetSysState(uint64_t value)
{
    static const std::map<uint64_t, std::string> words = {
        {0, "OFF"},         {1, "WORKING"},
        {2, "SUSPEND"},     {3, "UPGRADE"},
        {4, "CALIBRATION"}, {257, "HIGH_LEVEL_VOLD_EXIT"},
        {258, "SUSPEND_PRE"},
    };
    auto found = words.find(value);
    return found != words.end() ? found->second : std::string();
}

} // namespace Stavik
