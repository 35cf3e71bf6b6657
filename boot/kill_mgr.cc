#include "boot/kill_mgr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "boot/kernel_calls.h"
#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/sys_root.h"
#include "securec.h"

namespace Stavik {
namespace {

const std::string KILL_MGR_FILE = "/proc/kill_mgr";

} // namespace

void BootContext::OpenKillMgr()
{
    killMgrFd_ = open(SysPath(KILL_MGR_FILE).c_str(), O_RDONLY | O_CLOEXEC);
    if (killMgrFd_ < 0) {
        Syslog(LOG_WARNING, "OpenKillMgr failed. errno:%d", errno);
        return;
    }
    Syslog(LOG_INFO, "OpenKillMgr success.");
}

void BootContext::CloseKillMgr()
{
    if (killMgrFd_ >= 0) {
        close(killMgrFd_);
        killMgrFd_ = -1;
    }
}

// One kernel request per call, so the threads that drive states need no lock.
void BootContext::ModifyKillMgrTask(const std::string& name, uint32_t pid, uint32_t code)
{
    if (killMgrFd_ < 0) {
        Syslog(LOG_WARNING, "ModifyKillMgrTask file not exist.");
        return;
    }
    KillMgrTaskInfo record{};
    record.pid = pid;
    errno_t ret = strcpy_s(record.name, KILL_MGR_NAME_LEN, name.c_str());
    if (ret != 0) {
        Syslog(LOG_ERR, "strcpy_s failed. ret:%d, info:[%s, %u, %u]", ret, name.c_str(), pid, code);
        return;
    }
    unsigned long request = KILL_MGR_IOCTL_BASE | code;
    if (CurrentKernelCalls().ioctl(killMgrFd_, request, reinterpret_cast<unsigned long>(&record)) != 0) {
        Syslog(LOG_ERR, "ModifyKillMgr ioctl failed. errno:%d, info:[%s, %u, %u]", errno, name.c_str(), pid, code);
        return;
    }
    Syslog(LOG_INFO, "ModifyKillMgr success. info:[%s, %u, %u]", name.c_str(), pid, code);
}

// Blocks for as long as the kernel holds the request.
void BootContext::WaitToKillMgr(uint32_t timeout)
{
    if (killMgrFd_ < 0) {
        Syslog(LOG_WARNING, "WaitToKillMgr file not exist.");
        return;
    }
    Syslog(LOG_INFO, "%s WaitToKillMgr start.", BootStrace(SK_TAG).c_str());
    if (CurrentKernelCalls().ioctl(killMgrFd_, KILL_MGR_IOCTL_BASE | KILL_MGR_WAIT, timeout) != 0) {
        Syslog(LOG_ERR, "WaitToKillMgr ioctl failed. errno:%d, timout:%u", errno, timeout);
        return;
    }
    Syslog(LOG_INFO, "%s WaitToKillMgr success. timout:%u", BootStrace(SK_TAG).c_str(), timeout);
}

// From here on the ends of type-1 applications are the kill manager's doing.
void BootContext::StartWaitKillMgr()
{
    isKillMgrWait_.store(1, std::memory_order_release);
    WaitToKillMgr(KILL_MGR_WAIT_TIMEOUT);
}

} // namespace Stavik
