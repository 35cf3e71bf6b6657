#include "app/child_setup.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "app/exit_status.h"
#include "core/boot_context.h"

namespace Stavik {
namespace App {
namespace {

constexpr rlim_t RT_PRIO_LIMIT = 99;
constexpr size_t FRAGMENT_MAX = 512;

// Operating system policy of each schedPolicy_ value, indexed by the value.
constexpr int OS_SCHED_POLICIES[] = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, SCHED_FIFO, SCHED_RR};

int OsSchedPolicy(uint32_t schedPolicy)
{
    constexpr uint32_t known = sizeof(OS_SCHED_POLICIES) / sizeof(OS_SCHED_POLICIES[0]);
    return schedPolicy < known ? OS_SCHED_POLICIES[schedPolicy] : SCHED_OTHER;
}

// Lets the process raise its own real-time priority up to the highest one.
void SetRtLimit(bool needRtLimit, std::string& errInfo)
{
    if (!needRtLimit) {
        return;
    }
    struct rlimit limit {};
    if (getrlimit(RLIMIT_RTPRIO, &limit) != 0) {
        AppendErrInfo(errInfo, "getrlimit failed,errno=%d;", errno);
        return;
    }
    limit.rlim_cur = RT_PRIO_LIMIT;
    limit.rlim_max = RT_PRIO_LIMIT;
    if (prlimit(0, RLIMIT_RTPRIO, &limit, nullptr) != 0) {
        AppendErrInfo(errInfo, "prlimit failed,errno=%d;", errno);
    }
}

void SetSchedPolicy(int32_t pid, uint32_t schedPolicy, int32_t rtPrio, std::string& errInfo)
{
    if (schedPolicy == SK_SCHED_UNCHANGED) {
        return;
    }
    struct sched_param param {};
    param.sched_priority = rtPrio;
    if (sched_setscheduler(pid, OsSchedPolicy(schedPolicy), &param) != 0) {
        AppendErrInfo(errInfo, "sched_setscheduler failed errno=%d,type=%d,priority=%d;", errno,
                      static_cast<int>(schedPolicy), rtPrio);
    }
}

// The place where the manifest's security context is to be applied; there is
// nothing to apply on this platform yet.
void ApplySecurityContext(const std::string&, std::string&)
{
}

std::vector<char*> BuildArgv(const AppInfo& app)
{
    std::vector<char*> argv;
    argv.reserve(app.arguments_.size() + 2);
    argv.push_back(const_cast<char*>(app.execPath_.c_str()));
    for (const std::string& argument : app.arguments_) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

} // namespace

std::string SetUpChild(AppInfo& app, int32_t niceIncrement, const UserGroups& groups)
{
    app.pid_ = static_cast<int32_t>(getpid());
    std::string errInfo;
    SetRtLimit(app.needRtLimit_, errInfo);
    SetSchedPolicy(app.pid_, app.schedPolicy_, app.rtPrio_, errInfo);
    if (niceIncrement != 0) {
        int ignored = nice(niceIncrement);
        (void)ignored;
    }
    if (!SetAppIdentity(app.uid_, app.gid_, groups, errInfo)) {
        SendErrInfo(app, errInfo);
        _exit(1);
    }
    return errInfo;
}

void ExecChild(const AppInfo& app, std::string& errInfo)
{
    ApplySecurityContext(app.securityCon_, errInfo);
    SendErrInfo(app, errInfo);
    std::vector<char*> argv = BuildArgv(app);
    execv(app.execPath_.c_str(), argv.data());
    int err = errno;
    errInfo = "execv failed, execPath_=" + app.execPath_ + ", errno=" + std::to_string(err) + ";";
    SendErrInfo(app, errInfo);
    _exit(ExecFailureExitCode(err));
}

int ExecFailureExitCode(int err)
{
    return err == EIO ? IO_ERROR_EXIT_CODE : 1;
}

void AppendErrInfo(std::string& errInfo, const char* format, ...)
{
    char fragment[FRAGMENT_MAX];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(fragment, sizeof(fragment), format, args);
    va_end(args);
    if (length > 0) {
        errInfo += fragment;
    }
}

void SendErrInfo(const AppInfo& app, const std::string& errInfo)
{
    int fd = BootContext::Instance().childMsgPipe_[1];
    if (fd == -1 || errInfo.empty()) {
        return;
    }
    std::string text = "app=" + app.appName_ + ",pid=" + std::to_string(app.pid_) + "," + errInfo;
    ssize_t ignored = write(fd, text.data(), text.size());
    (void)ignored;
}

} // namespace App
} // namespace Stavik
