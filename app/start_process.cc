#include <unistd.h>

#include <cerrno>

#include "app/app_info.h"
#include "app/child_setup.h"
#include "app/child_sharepool.h"
#include "app/start_check.h"
#include "app/steady_clock.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

// The last parent steps before the fork; the plan is complete by now.
void MarkNewStart(AppInfo& app, ChildPlan& plan, int32_t niceIncrement)
{
    PrepareChildPlan(app, niceIncrement, plan);
    app.boundTids_.clear();
    app.hasExitStatus_ = false;
    app.startTime_ = SteadyNowNs();
}

} // namespace

bool GeneralAppInfo::StartProcess()
{
    if (!CheckBeforeStart(*this)) {
        return false;
    }
    ChildPlan plan;
    BuildGeneralAppEnv(*this, plan);
    MarkNewStart(*this, plan, nice_);
    pid_t pid = fork();
    if (pid < 0) {
        Syslog(LOG_ERR, "STAVIK: Start generalApp failed. fork failed: errno=%d", errno);
        return false;
    }
    if (pid == 0) {
        RunChild(*this, plan);
    }
    pid_ = pid;
    JoinSharepoolGroups(ownerName_, *this, sharepoolGroups_);
    Syslog(LOG_INFO, "%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
           BootStrace(SK_TAG).c_str(), appName_.c_str(), pid_, isDelayCoreAffinity_);
    return true;
}

bool BaseAppInfo::StartProcess()
{
    if (!CheckBeforeStart(*this)) {
        return false;
    }
    ChildPlan plan;
    BuildBaseAppEnv(*this, plan);
    // A base service keeps the nice value of the daemon.
    MarkNewStart(*this, plan, 0);
    pid_t pid = fork();
    if (pid < 0) {
        Syslog(LOG_ERR, "STAVIK : Start baseApp %s failed errno=%d", appName_.c_str(), errno);
        return false;
    }
    if (pid == 0) {
        RunChild(*this, plan);
    }
    pid_ = pid;
    Syslog(LOG_INFO, "%s Start baseApp success appName=%s, binPath=%s, pid=%d, isDelayCoreAffinity_=%d",
           BootStrace(SK_TAG).c_str(), appName_.c_str(), execPath_.c_str(), pid_, isDelayCoreAffinity_);
    JoinSharepoolGroups(appName_, *this, {});
    state_ = STARTING;
    return true;
}

} // namespace App
} // namespace Stavik
