#ifndef STAVIK_RESOURCE_SYS_OPERATOR_MSG_H
#define STAVIK_RESOURCE_SYS_OPERATOR_MSG_H

#include <cstddef>
#include <cstdint>

#include "hal.h"

// The records of the system operator service ("/res/stavik/sys_server"): a
// client sends one with an ioctl command and gets it back with the reply in
// it. Shared with the clients; the layouts are binding.

namespace Stavik {

enum SysOperatorCmd : uint32_t {
    SYS_OP_BIND_THREAD = 0,
    SYS_OP_GRP_CREATE = 1,
    SYS_OP_GRP_ADD_PROC = 2,
    SYS_OP_GRP_QUERY = 3,
    SYS_OP_SET_SCHEDULER = 4,
    SYS_OP_CMD_NUM = 5,
};

// A count field beyond its array.
constexpr uint32_t SYS_OP_COUNT_INVALID = 0xF10000;
constexpr uint32_t BIND_CORES_SIZE = 128;
constexpr uint32_t BIND_CORE_NUM_MAX = 127;
constexpr uint32_t SCHED_THREADS_SIZE = 32;
constexpr uint32_t SCHED_THREAD_NUM_MAX = 31;
constexpr uint32_t GRP_MSG_NAME_SIZE = 32;
constexpr uint32_t GRP_QUERY_IN_SIZE = 36;
constexpr uint32_t GRP_QUERY_OUT_SIZE = 36864;

struct BindThreadMsg {
    uint32_t tid;
    uint32_t cores[BIND_CORES_SIZE];
    uint32_t coreNum;
    uint32_t result;
    uint32_t pid;
};
static_assert(sizeof(BindThreadMsg) == 528, "BindThreadMsg layout is binding");
static_assert(offsetof(BindThreadMsg, cores) == 4, "BindThreadMsg layout is binding");
static_assert(offsetof(BindThreadMsg, coreNum) == 516, "BindThreadMsg layout is binding");
static_assert(offsetof(BindThreadMsg, result) == 520, "BindThreadMsg layout is binding");
static_assert(offsetof(BindThreadMsg, pid) == 524, "BindThreadMsg layout is binding");

struct MempodGrpCreateMsg {
    char name[GRP_MSG_NAME_SIZE];
    GroupCfg cfg;
    int32_t result;
    uint32_t reserved;
};
static_assert(sizeof(MempodGrpCreateMsg) == 176, "MempodGrpCreateMsg layout is binding");
static_assert(offsetof(MempodGrpCreateMsg, cfg) == 32, "MempodGrpCreateMsg layout is binding");
static_assert(offsetof(MempodGrpCreateMsg, result) == 168, "MempodGrpCreateMsg layout is binding");

struct MempodGrpAddProcMsg {
    char name[GRP_MSG_NAME_SIZE];
    int32_t pid;
    uint32_t attr;
    int32_t result;
};
static_assert(sizeof(MempodGrpAddProcMsg) == 44, "MempodGrpAddProcMsg layout is binding");
static_assert(offsetof(MempodGrpAddProcMsg, pid) == 32, "MempodGrpAddProcMsg layout is binding");
static_assert(offsetof(MempodGrpAddProcMsg, attr) == 36, "MempodGrpAddProcMsg layout is binding");
static_assert(offsetof(MempodGrpAddProcMsg, result) == 40, "MempodGrpAddProcMsg layout is binding");

struct MempodGrpQueryMsg {
    int32_t cmd;
    uint8_t inBuff[GRP_QUERY_IN_SIZE];
    uint32_t inLen;
    uint32_t reserved;
    uint8_t outBuff[GRP_QUERY_OUT_SIZE];
    uint32_t outLen;
    int32_t result;
};
static_assert(sizeof(MempodGrpQueryMsg) == 36920, "MempodGrpQueryMsg layout is binding");
static_assert(offsetof(MempodGrpQueryMsg, inBuff) == 4, "MempodGrpQueryMsg layout is binding");
static_assert(offsetof(MempodGrpQueryMsg, inLen) == 40, "MempodGrpQueryMsg layout is binding");
static_assert(offsetof(MempodGrpQueryMsg, outBuff) == 48, "MempodGrpQueryMsg layout is binding");
static_assert(offsetof(MempodGrpQueryMsg, outLen) == 36912, "MempodGrpQueryMsg layout is binding");
static_assert(offsetof(MempodGrpQueryMsg, result) == 36916, "MempodGrpQueryMsg layout is binding");

struct SchedThreadEntry {
    int32_t tid;
    int32_t policy;
    int32_t priority;
};
static_assert(sizeof(SchedThreadEntry) == 12, "SchedThreadEntry layout is binding");

struct SetSchedulerMsg {
    SchedThreadEntry threads[SCHED_THREADS_SIZE];
    uint32_t threadNum;
    int32_t result;
};
static_assert(sizeof(SetSchedulerMsg) == 392, "SetSchedulerMsg layout is binding");
static_assert(offsetof(SetSchedulerMsg, threadNum) == 384, "SetSchedulerMsg layout is binding");
static_assert(offsetof(SetSchedulerMsg, result) == 388, "SetSchedulerMsg layout is binding");

} // namespace Stavik

#endif
