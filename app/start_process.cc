#include <unistd.h>

#include <cerrno>

#include "app/app_info.h"
#include "app/child_setup.h"
#include "app/start_check.h"
#include "app/steady_clock.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

// Parent steps up to the fork. The user lookup is done here so that the child
// takes no lock of the user databases that another thread could hold.
bool PrepareStart(AppInfo& app, UserGroups& groups)
{
    if (!CheckBeforeStart(app)) {
        return false;
    }
    groups = LookUpUserGroups(app.uid_);
    app.boundTids_.clear();
    app.hasExitStatus_ = false;
    app.startTime_ = SteadyNowNs();
    return true;
}

} // namespace

bool GeneralAppInfo::StartProcess()
{
    UserGroups groups;
    if (!PrepareStart(*this, groups)) {
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        Syslog(LOG_ERR, "STAVIK: Start generalApp failed. fork failed: errno=%d", errno);
        return false;
    }
    if (pid == 0) {
        std::string errInfo = SetUpChild(*this, nice_, groups);
        SetGeneralAppEnv(*this, errInfo);
        ExecChild(*this, errInfo);
    }
    pid_ = pid;
    Syslog(LOG_INFO, "%s Start generalApp success appName=%s, child_pid=%d, isDelayCoreAffinity_=%d",
           BootStrace(SK_TAG).c_str(), appName_.c_str(), pid_, isDelayCoreAffinity_);
    return true;
}

bool BaseAppInfo::StartProcess()
{
    UserGroups groups;
    if (!PrepareStart(*this, groups)) {
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        Syslog(LOG_ERR, "STAVIK : Start baseApp %s failed errno=%d", appName_.c_str(), errno);
        return false;
    }
    if (pid == 0) {
        // A base service keeps the nice value of the daemon.
        std::string errInfo = SetUpChild(*this, 0, groups);
        SetBaseAppEnv(*this, errInfo);
        ExecChild(*this, errInfo);
    }
    pid_ = pid;
    Syslog(LOG_INFO, "%s Start baseApp success appName=%s, binPath=%s, pid=%d, isDelayCoreAffinity_=%d",
           BootStrace(SK_TAG).c_str(), appName_.c_str(), execPath_.c_str(), pid_, isDelayCoreAffinity_);
    state_ = STARTING;
    return true;
}

} // namespace App
} // namespace Stavik
