#include "resource/sys_operator.h"

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "core/log.h"
#include "resource/core_affinity_mgr.h"
#include "resource/sys_operator_msg.h"
#include "securec.h"

namespace Stavik {
namespace {

using Handler = int32_t (*)(ZulIoctlArg* ioctlInfo);

struct Command {
    uint32_t cmd;
    Handler handler;
};

void LogBegin(const char* name)
{
    Syslog(LOG_INFO, "stavik sysOperator server FmIoctl begin to exec cmd=%s", name);
}

unsigned long SizeOf(const ZulIoctlArg* ioctlInfo)
{
    return static_cast<unsigned long>(ioctlInfo->size);
}

// The whole 32 bytes without a NUL is too long: it never reaches the library.
bool NameFits(const char* name, const char* command)
{
    size_t length = strnlen(name, GRP_MSG_NAME_SIZE);
    if (length == GRP_MSG_NAME_SIZE) {
        Syslog(LOG_ERR, "stavik sysOperator server %s name too long=%zu", command, length);
        return false;
    }
    return true;
}

int32_t BindThread(ZulIoctlArg* ioctlInfo)
{
    LogBegin("BindThread");
    if (ioctlInfo->size != sizeof(BindThreadMsg)) {
        Syslog(LOG_INFO, "stavik sysOperator server BindThread size=%lu bytes is not valid", SizeOf(ioctlInfo));
        return -1;
    }
    BindThreadMsg* msg = static_cast<BindThreadMsg*>(ioctlInfo->data);
    if (msg->coreNum > BIND_CORE_NUM_MAX) {
        msg->result = SYS_OP_COUNT_INVALID;
        return 0;
    }
    // No cores at all sends the thread to the control CPUs.
    std::vector<uint32_t> cores(msg->cores, msg->cores + msg->coreNum);
    msg->result = CoreAffinityMgr::Instance().StoreAndSetCoreAffinity(msg->pid, msg->tid, cores);
    return 0;
}

// The client's configuration goes to the library as it stands.
int32_t GrpCreate(ZulIoctlArg* ioctlInfo)
{
    LogBegin("GrpCreate");
    if (ioctlInfo == nullptr) {
        Syslog(LOG_ERR, "stavik sysOperator server GrpCreate ioctlInfo is nullptr");
        return -1;
    }
    if (ioctlInfo->size != sizeof(MempodGrpCreateMsg)) {
        Syslog(LOG_ERR, "stavik sysOperator server MempodGrpCreateMsg size=%lu bytes is not valid", SizeOf(ioctlInfo));
        return -1;
    }
    MempodGrpCreateMsg* msg = static_cast<MempodGrpCreateMsg*>(ioctlInfo->data);
    if (!NameFits(msg->name, "GrpCreate")) {
        return -1;
    }
    GroupCfg cfg{};
    errno_t ret = memcpy_s(&cfg, sizeof(cfg), &msg->cfg, sizeof(msg->cfg));
    if (ret != EOK) {
        Syslog(LOG_ERR, "stavik sysOperator server GrpCreate memcpy_s fail, ret=%d, dst size=%zu, src size=%zu", ret,
               sizeof(cfg), sizeof(msg->cfg));
        return -1;
    }
    msg->result = halGrpCreate(msg->name, cfg);
    Syslog(LOG_INFO, "stavik sysOperator server GrpCreate name=%s, ret=%d", msg->name, msg->result);
    return 0;
}

int32_t GrpAddProc(ZulIoctlArg* ioctlInfo)
{
    LogBegin("GrpAddProc");
    if (ioctlInfo == nullptr) {
        Syslog(LOG_ERR, "stavik sysOperator server GrpAddProc ioctlInfo is nullptr");
        return -1;
    }
    if (ioctlInfo->size != sizeof(MempodGrpAddProcMsg)) {
        Syslog(LOG_INFO, "stavik sysOperator server MempodGrpAddProcMsg size=%lu bytes is not valid", SizeOf(ioctlInfo));
        return -1;
    }
    MempodGrpAddProcMsg* msg = static_cast<MempodGrpAddProcMsg*>(ioctlInfo->data);
    if (!NameFits(msg->name, "GrpAddProc")) {
        return -1;
    }
    uint32_t attr = 0;
    errno_t ret = memcpy_s(&attr, sizeof(attr), &msg->attr, sizeof(msg->attr));
    if (ret != EOK) {
        Syslog(LOG_ERR, "stavik sysOperator server GrpAddProc memcpy_s fail ret=%d, dstSize=%zu, srcSize=%zu", ret,
               sizeof(attr), sizeof(msg->attr));
        return -1;
    }
    msg->result = halGrpAddProc(msg->name, msg->pid, attr);
    Syslog(LOG_INFO, "stavik sysOperator server GrpAddProc name=%s, ret=%d", msg->name, msg->result);
    return 0;
}

int32_t GrpQuery(ZulIoctlArg* ioctlInfo)
{
    LogBegin("GrpQuery");
    if (ioctlInfo == nullptr) {
        Syslog(LOG_ERR, "stavik sysOperator server GrpQuery ioctlInfo is nullptr");
        return -1;
    }
    if (ioctlInfo->size != sizeof(MempodGrpQueryMsg)) {
        Syslog(LOG_INFO, "stavik sysOperator server MempodGrpQueryMsg size=%lu bytes is not valid", SizeOf(ioctlInfo));
        return -1;
    }
    MempodGrpQueryMsg* msg = static_cast<MempodGrpQueryMsg*>(ioctlInfo->data);
    // The lengths a client claims never reach past the record's buffers.
    uint32_t inLen = msg->inLen < GRP_QUERY_IN_SIZE ? msg->inLen : GRP_QUERY_IN_SIZE;
    if (msg->outLen > GRP_QUERY_OUT_SIZE) {
        msg->outLen = GRP_QUERY_OUT_SIZE;
    }
    msg->result = halGrpQuery(msg->cmd, msg->inBuff, inLen, msg->outBuff, &msg->outLen);
    Syslog(LOG_INFO, "stavik sysOperator server GrpQuery cmd=%d, inLen=%u, ret=%d", msg->cmd, msg->inLen,
           msg->result);
    return 0;
}

// Every entry is tried; the last failure stays in result, which a success
// leaves as the client sent it.
int32_t SetScheduler(ZulIoctlArg* ioctlInfo)
{
    LogBegin("SET_SCHEDULER");
    if (ioctlInfo == nullptr) {
        Syslog(LOG_ERR, "stavik sysOperator server SetScheduler ioctlInfo is nullptr");
        return -1;
    }
    if (ioctlInfo->size != sizeof(SetSchedulerMsg)) {
        Syslog(LOG_INFO, "stavik sysOperator server SetScheduler size=%lu bytes is not valid", SizeOf(ioctlInfo));
        return -1;
    }
    SetSchedulerMsg* msg = static_cast<SetSchedulerMsg*>(ioctlInfo->data);
    if (msg->threadNum > SCHED_THREAD_NUM_MAX) {
        msg->result = static_cast<int32_t>(SYS_OP_COUNT_INVALID);
        return 0;
    }
    for (uint32_t i = 0; i < msg->threadNum; ++i) {
        const SchedThreadEntry& entry = msg->threads[i];
        struct sched_param param {};
        param.sched_priority = entry.priority;
        int ret = sched_setscheduler(entry.tid, entry.policy, &param);
        if (ret != 0) {
            Syslog(LOG_ERR, "stavik sysOperator server SetScheduler errno=%d, thread=%d, policy=%d, priority=%d",
                   errno, entry.tid, entry.policy, entry.priority);
            msg->result = ret;
        }
    }
    return 0;
}

// Looked up by index: the row of a command is its number.
const Command COMMANDS[SYS_OP_CMD_NUM] = {
    {SYS_OP_BIND_THREAD, BindThread},
    {SYS_OP_GRP_CREATE, GrpCreate},
    {SYS_OP_GRP_ADD_PROC, GrpAddProc},
    {SYS_OP_GRP_QUERY, GrpQuery},
    {SYS_OP_SET_SCHEDULER, SetScheduler},
};

} // namespace

int32_t SysOperatorOpen(ZulFile* file)
{
    if (file == nullptr) {
        Syslog(LOG_INFO, "stavik sysOperator server Open vfsfile is null");
        return -1;
    }
    return 0;
}

int32_t SysOperatorClose(ZulFile* file)
{
    if (file == nullptr) {
        Syslog(LOG_INFO, "stavik sysOperator server Close vfsfile is null");
        return -1;
    }
    return 0;
}

int32_t SysOperatorIoctl(ZulFile*, uint32_t cmd, ZulIoctlArg* arg)
{
    if (arg == nullptr || arg->data == nullptr) {
        Syslog(LOG_ERR, "stavik sysOperator server IoctlProc failed: arg or argData is null");
        return -1;
    }
    if (cmd >= SYS_OP_CMD_NUM) {
        Syslog(LOG_ERR, "stavik sysOperator server IoctlProc failed: invalid cmd: %u", cmd);
        return -1;
    }
    return COMMANDS[cmd].handler(arg);
}

} // namespace Stavik
