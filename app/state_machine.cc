#include <signal.h>

#include "app/app_info.h"
#include "app/exit_status.h"
#include "app/signals.h"
#include "app/steady_clock.h"
#include "boot/kill_mgr.h"
#include "core/boot_context.h"
#include "core/constants.h"
#include "core/log.h"

// One step of the state machine of a record, taken by the check thread: it
// judges the exit status the wait thread left and the clock, takes at most one
// transition and leaves in reportState_ what the owners must be told.

namespace Stavik {
namespace App {
namespace {

bool HasPid(const AppInfo& app)
{
    if (app.pid_ >= 1) {
        return true;
    }
    Syslog(LOG_ERR, "CheckState : pid <= 0, don't call waitpid(), currentState=%d", app.state_);
    return false;
}

ProcessState UnexpectedState(const AppInfo& app)
{
    Syslog(LOG_ERR, "STAVIK : Process %s got unexpected state=%d", app.appName_.c_str(), app.state_);
    return app.state_;
}

void LogUnexpectedTerminated(const AppInfo& app)
{
    Syslog(LOG_ERR, "STAVIK : Process %s got unexpected TERMINATED state", app.appName_.c_str());
}

// A death nobody asked for is abnormal, exit code 0 included, except the good
// end of a run-once application of the naming service.
void HandleTerminated(AppInfo& app)
{
    ExitStatusLog(app, app.exitStatus_);
    app.isInputOutputError_ = IsSelfExit(app.exitStatus_, IO_ERROR_EXIT_CODE);
    if (app.restart_ == RESTART_ON_UNTIL_SUCCEED && app.ownerName_ == ZUL_MGR_NAME && IsSelfExit(app.exitStatus_, 0)) {
        app.reportState_ = TERMINATED_NORMAL_EXIT;
        Syslog(LOG_INFO, "STAVIK : non resident app=%s normal exit", app.appName_.c_str());
        return;
    }
    app.reportState_ = TERMINATED_ABNORMAL_EXIT;
}

// A reporting process stays STARTING until it tells its state itself.
ProcessState CheckStarting(AppInfo& app)
{
    if (app.hasExitStatus_) {
        HandleTerminated(app);
        Syslog(LOG_INFO, "STAVIK : STARTING to TERMINATED appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
        return TERMINATED;
    }
    if (app.isReporting_) {
        return STARTING;
    }
    app.reportState_ = RUNNING_NORMAL_START;
    Syslog(LOG_INFO, "STAVIK : STARTING to RUNNING appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
    return RUNNING;
}

ProcessState CheckRunning(AppInfo& app)
{
    if (!app.hasExitStatus_) {
        return RUNNING;
    }
    HandleTerminated(app);
    Syslog(LOG_INFO, "STAVIK : RUNNING to TERMINATED appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
    return TERMINATED;
}

// A base service that announced its end is given all the time it needs.
ProcessState CheckBaseTerminating(AppInfo& app)
{
    if (!app.hasExitStatus_) {
        return TERMINATING;
    }
    ExitStatusLog(app, app.exitStatus_);
    app.reportState_ = TERMINATED_NORMAL_EXIT;
    Syslog(LOG_INFO, "STAVIK : TERMINATING to TERMINATED appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
    return TERMINATED;
}

int64_t TermElapsedMs(const GeneralAppInfo& app)
{
    return ElapsedMs(app.termBeginTime_, SteadyNowNs());
}

// A SIGKILL already sent, or time left: nothing to do in this step.
bool IsTermPending(const GeneralAppInfo& app)
{
    return app.isKillSent_ || static_cast<int64_t>(app.termTimeOut_) > TermElapsedMs(app);
}

void KillAtTermTimeOut(GeneralAppInfo& app)
{
    TermFrsSubProc(app.appName_, app.pid_);
    SendSignal(SIGKILL, app.appName_, app.pid_);
    app.isKillSent_ = true;
}

ProcessState CheckGeneralTerminating(GeneralAppInfo& app)
{
    if (app.hasExitStatus_) {
        ExitStatusLog(app, app.exitStatus_);
        app.isKillSent_ = false;
        app.reportState_ = TERMINATED_NORMAL_EXIT;
        Syslog(LOG_INFO, "STAVIK : TERMINATING to TERMINATED. (appName=%s,pid=%d,cost=%ld ms)", app.appName_.c_str(),
               app.pid_, static_cast<long>(TermElapsedMs(app)));
        return TERMINATED;
    }
    if (IsTermPending(app)) {
        return TERMINATING;
    }
    if (app.isForceTerm_) {
        Syslog(LOG_INFO,
               "STAVIK : term timeout and forceTerm is true, so kill appName=%s, pid=%d,TERMINATING to TERMINATED",
               app.appName_.c_str(), app.pid_);
        KillAtTermTimeOut(app);
        return TERMINATING;
    }
    // The SIGTERM stays pending; the process is running again as far as the owners know.
    app.reportState_ = RUNNING_ABNORMAL_TERM_TIMEOUT;
    Syslog(LOG_INFO, "STAVIK : term timeout and forceTerm is false, so not kill appName=%s, pid=%dTERMINATING to RUNNING",
           app.appName_.c_str(), app.pid_);
    return RUNNING;
}

// The old process is dead: start the new one. There is no STARTING in a
// restart; the next step declares it RUNNING if it is still alive.
ProcessState StartAfterOldDied(GeneralAppInfo& app)
{
    if (app.processType_ == KILL_MGR_PROCESS_TYPE) {
        BootContext::Instance().ModifyKillMgrTask(app.appName_, static_cast<uint32_t>(app.pid_), KILL_MGR_TASK_END);
    }
    app.isKillSent_ = false;
    if (!app.StartProcess()) {
        app.reportState_ = TERMINATED_ABNORMAL_EXIT;
        Syslog(LOG_INFO, "STAVIK : RESTARTING to TERMINATED appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
        return TERMINATED;
    }
    app.isForceTerm_ = app.savedForceTerm_;
    app.isRestartStarted_ = 1;
    return RESTARTING;
}

// A restart kills the old process at the time-out whatever the manifest's
// force flag says.
ProcessState CheckGeneralRestarting(GeneralAppInfo& app)
{
    if (app.isRestartStarted_ == 0) {
        if (app.hasExitStatus_) {
            return StartAfterOldDied(app);
        }
        if (!IsTermPending(app)) {
            KillAtTermTimeOut(app);
        }
        return RESTARTING;
    }
    if (app.hasExitStatus_) {
        HandleTerminated(app);
        Syslog(LOG_INFO, "STAVIK : RESTARTING to TERMINATED appName=%s, pid=%d", app.appName_.c_str(), app.pid_);
        return TERMINATED;
    }
    app.reportState_ = RUNNING_NORMAL_RESTART;
    return RUNNING;
}

} // namespace

ProcessState BaseAppInfo::CheckState()
{
    isInputOutputError_ = false;
    reportState_ = INVALID_INTERMEDIATE_STATE;
    if (!HasPid(*this)) {
        return state_;
    }
    switch (state_) {
        case STARTING:
            return CheckStarting(*this);
        case RUNNING:
            return CheckRunning(*this);
        case TERMINATING:
            return CheckBaseTerminating(*this);
        case TERMINATED:
            // Reported as newly dead at every step, so that the death handling
            // runs again until a restart succeeds or is given up.
            LogUnexpectedTerminated(*this);
            reportState_ = TERMINATED_ABNORMAL_EXIT;
            return TERMINATED;
        default:
            return UnexpectedState(*this);
    }
}

ProcessState GeneralAppInfo::CheckState()
{
    if (!HasPid(*this)) {
        return state_;
    }
    if (state_ == TERMINATED) {
        // The verdict of the death stays for whoever reads it after this step.
        isInputOutputError_ = false;
        LogUnexpectedTerminated(*this);
        return TERMINATED;
    }
    isInputOutputError_ = false;
    reportState_ = INVALID_INTERMEDIATE_STATE;
    switch (state_) {
        case STARTING:
            return CheckStarting(*this);
        case RUNNING:
            return CheckRunning(*this);
        case TERMINATING:
            return CheckGeneralTerminating(*this);
        case RESTARTING:
            return CheckGeneralRestarting(*this);
        default:
            return UnexpectedState(*this);
    }
}

} // namespace App
} // namespace Stavik
