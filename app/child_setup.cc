#include "app/child_setup.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

#include "app/child_resources.h"
#include "app/exit_status.h"
#include "core/boot_context.h"

extern char** environ;

namespace Stavik {
namespace App {
namespace {

using Piece = ChildText::Piece;

constexpr rlim_t RT_PRIO_LIMIT = 99;

// Operating system policy of each schedPolicy_ value, indexed by the value.
constexpr int OS_SCHED_POLICIES[] = {SCHED_OTHER, SCHED_BATCH, SCHED_IDLE, SCHED_FIFO, SCHED_RR};

int OsSchedPolicy(uint32_t schedPolicy)
{
    constexpr uint32_t known = sizeof(OS_SCHED_POLICIES) / sizeof(OS_SCHED_POLICIES[0]);
    return schedPolicy < known ? OS_SCHED_POLICIES[schedPolicy] : SCHED_OTHER;
}

// Lets the process raise its own real-time priority up to the highest one.
void SetRtLimit(bool needRtLimit, ChildText& text)
{
    if (!needRtLimit) {
        return;
    }
    struct rlimit limit {};
    if (getrlimit(RLIMIT_RTPRIO, &limit) != 0) {
        text.Add({"getrlimit failed,errno=", Piece::Number(errno), ";"});
        return;
    }
    limit.rlim_cur = RT_PRIO_LIMIT;
    limit.rlim_max = RT_PRIO_LIMIT;
    if (prlimit(0, RLIMIT_RTPRIO, &limit, nullptr) != 0) {
        text.Add({"prlimit failed,errno=", Piece::Number(errno), ";"});
    }
}

void SetSchedPolicy(uint32_t schedPolicy, int32_t rtPrio, ChildText& text)
{
    if (schedPolicy == SK_SCHED_UNCHANGED) {
        return;
    }
    struct sched_param param {};
    param.sched_priority = rtPrio;
    if (sched_setscheduler(0, OsSchedPolicy(schedPolicy), &param) != 0) {
        text.Add({"sched_setscheduler failed errno=", Piece::Number(errno), ",type=", Piece::Number(schedPolicy),
                  ",priority=", Piece::Number(rtPrio), ";"});
    }
}

// The place where the manifest's security context is to be applied; there is
// nothing to apply on this platform yet.
void ApplySecurityContext(const std::string&, ChildText&)
{
}

void InitZulProc(const ChildPlan& plan, ChildText& text)
{
    if (ZULInitProc(plan.zulConfig) < 0) {
        text.Add({"ZULInitProc failed, errno=", Piece::Number(errno), ";"});
    }
}

} // namespace

void PrepareChildPlan(const AppInfo& app, int32_t niceIncrement, ChildPlan& plan)
{
    plan.groups = LookUpUserGroups(app.uid_);
    plan.niceIncrement = niceIncrement;
    plan.pipeFd = BootContext::Instance().childMsgPipe_[1];
    plan.argv.Append(app.execPath_);
    for (const std::string& argument : app.arguments_) {
        plan.argv.Append(argument);
    }
    plan.zulConfig.appName = app.appName_;
    plan.zulConfig.binPath = app.execPath_;
    plan.argv.Seal();
    plan.env.Seal();
    size_t resourceRoom = PrepareChildResources(app, plan);
    plan.text.Prepare(app.appName_, plan.envFragments.size() + app.execPath_.size() + resourceRoom);
}

void RunChild(const AppInfo& app, ChildPlan& plan)
{
    ChildText& text = plan.text;
    text.Begin(getpid());
    SetRtLimit(app.needRtLimit_, text);
    SetSchedPolicy(app.schedPolicy_, app.rtPrio_, text);
    if (plan.niceIncrement != 0) {
        int ignored = nice(plan.niceIncrement);
        (void)ignored;
    }
    AddPlannedCgroups(plan, getpid(), text);
    if (!SetAppIdentity(app.uid_, app.gid_, plan.groups, text)) {
        text.Send(plan.pipeFd);
        _exit(1);
    }
    text.Add({plan.envFragments});
    environ = plan.env.Data();
    InitZulProc(plan, text);
    app.ApplyCoreAffinity(plan.binding, text);
    ApplySecurityContext(app.securityCon_, text);
    text.Send(plan.pipeFd);
    char** argv = plan.argv.Data();
    execve(argv[0], argv, environ);
    int err = errno;
    text.ClearFragments();
    text.Add({"execv failed, execPath_=", app.execPath_, ", errno=", Piece::Number(err), ";"});
    text.Send(plan.pipeFd);
    _exit(ExecFailureExitCode(err));
}

int ExecFailureExitCode(int err)
{
    return err == EIO ? IO_ERROR_EXIT_CODE : 1;
}

} // namespace App
} // namespace Stavik
