#ifndef STAVIK_CHANNEL_MESSAGE_H
#define STAVIK_CHANNEL_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Vocabulary of the control channel: the one fixed-size record that travels on
// every owner pipe, its kinds, and the records its bodies carry.
namespace Stavik {
namespace Message {

// Bytes of `data` in a RequestMsg.
constexpr size_t REQUEST_MSG_DATA_MAX = 3964;
// Usable body size: capacity of an upload request, and the most a report body holds.
constexpr size_t SK_PIPE_BUF_MAX = 3960;

// The record is sent as raw memory in native byte order; the gaps after `type`
// and after `data` are alignment padding, never read.
struct RequestMsg {
    uint32_t type;
    uint64_t size;
    char data[REQUEST_MSG_DATA_MAX];
};

static_assert(sizeof(RequestMsg) == 3984, "RequestMsg is a fixed wire record");
static_assert(offsetof(RequestMsg, type) == 0, "type sits at offset 0");
static_assert(offsetof(RequestMsg, size) == 8, "size sits at offset 8");
static_assert(offsetof(RequestMsg, data) == 16, "data sits at offset 16");

// The part of `data` a reader may look at. A body can't be larger than the data
// that holds it, so a `size` beyond the capacity is taken as the capacity and
// no reader ever passes the end of the record.
inline size_t BodySize(const RequestMsg& msg)
{
    return msg.size < REQUEST_MSG_DATA_MAX ? static_cast<size_t>(msg.size) : REQUEST_MSG_DATA_MAX;
}

enum RequestType : uint32_t {
    START_APP = 0,
    RESTART_APP = 1,
    TERM_APP = 2,
    BASESERVICE_STATE_REPORT = 3,
    REPORT_APP_STATE = 4,
    APP_EXECUTION_REPORT = 5,
    LOAD_STARTUP_CFG = 6,
    RELOAD_STARTUP_CFG = 7,
    // 8 is left free: nobody sends it and the daemon ignores it.
    QUERY_APP_STATE = 9,
    REPORT_APP_DETAIL_STATUS = 10,
};

// Entries in one start, restart or term record.
constexpr uint32_t APP_LIST_SIZE_MAX = 1999;
// Arguments of one start or restart entry.
constexpr uint32_t ARGV_SIZE_MAX = 1024;
// Slots of the dynamic block of one entry, and the highest slot index.
constexpr uint64_t DYNAMIC_PARA_SIZE_MAX = 3;
constexpr int32_t DYNAMIC_PARA_INDEX_MAX = 2;
// Values in one slot of the dynamic block.
constexpr uint64_t DYNAMIC_PARA_VALUE_NUM_MAX = 1024;
// Key and value pairs of a start-up configuration request.
constexpr uint32_t MATCH_COUNT_MAX = 102399;

// Dynamic parameters of one entry: slot index to its values.
using DynamicParaMap = std::map<int32_t, std::vector<std::string>>;

struct StartAppInfo {
    std::string appName;
    std::vector<std::string> argv;
    DynamicParaMap dynamicPara;
};

struct RestartAppInfo {
    std::string appName;
    std::vector<std::string> argv;
    DynamicParaMap dynamicPara;
};

struct TermAppInfo {
    std::string appName;
};

struct AppStateInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t state = 0;  // a ReportAppStateType value
    uint32_t reason = 0; // REASON_NONE, REASON_IO_ERROR or REASON_COREDUMP
};

// A report waiting to go out, never sent as such.
struct AppStateChange {
    std::string owner;
    AppStateInfo info;
};

enum class BaseServiceStateType : uint32_t {
    INIT = 0,
    RESTARTING = 1,
    RUNNING = 2,
    TERMINATING = 3,
};

// The sender is known from its pipe, so only the state travels.
struct BaseServiceStateInfo {
    uint32_t state = 0; // a BaseServiceStateType value
};

enum class AppExecState : uint32_t {
    RUNNING = 0,
    TERMINATED = 1,
};

struct AppExecInfo {
    std::string appName;
    uint32_t pid = 0;
    uint32_t gid = 0;
    uint32_t state = 0; // an AppExecState value
};

struct StartupCfgInfo {
    std::map<std::string, std::string> matchData;
    std::string path;
};

enum AppDetailStatus : uint32_t {
    DETAIL_STATUS_ALIVE = 0,
    DETAIL_STATUS_ABSENT = 1,
    DETAIL_STATUS_STOPPED = 2,
};

// Answer to QUERY_APP_STATE: application name to AppDetailStatus.
using AppDetailStatusMap = std::map<std::string, uint32_t>;

// Result codes of operations outside the control channel; none travels on a pipe.
constexpr uint32_t SK_ERR_DELAY_CORE_AFFINITY = 0xF1030C;
constexpr uint32_t SK_ERR_CGROUP_UPDATE = 0xF1030F;
constexpr uint32_t SK_ERR_LOAD_STARTUP_CFG = 0xF10405;
constexpr uint32_t SK_ERR_THREAD_NAME = 0xF10600;
constexpr uint32_t SK_ERR_NO_CPU_LIST = 0xF10601;
constexpr uint32_t SK_ERR_SET_AFFINITY = 0xF10602;

} // namespace Message
} // namespace Stavik

#endif
