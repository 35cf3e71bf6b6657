#include "app/terminated_reason.h"
#include "channel/name_tables.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "heart_beat.h"
#include "resource/core_affinity_mgr.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {
namespace {

// Records ahead of the one being checked whose first cache line is fetched.
const size_t PREFETCH_AHEAD = 4;

} // namespace

// The whole walk holds baseAppMutex_, a restart included. Every writer of a
// base application's state_ holds baseAppMutex_, so the step may read it
// without stateMutex_; stateMutex_, which the base start reads under, is
// taken only for a state that changes, which spares a lock per record and
// pass at rest.
void StavikDaemon::CheckBaseApps()
{
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    const size_t count = executedBaseApp_.size();
    for (size_t index = 0; index < count; ++index) {
        // After a 30 ms sleep the records are out of the cache; asking for
        // the next ones early lets their loads overlap.
        if (index + PREFETCH_AHEAD < count) {
            __builtin_prefetch(&executedBaseApp_[index + PREFETCH_AHEAD]);
        }
        App::BaseAppInfo& app = executedBaseApp_[index];
        const ProcessState next = app.CheckState();
        if (next != app.state_) {
            std::lock_guard<std::mutex> stateLock(stateMutex_);
            app.state_ = next;
        }
        if (app.reportState_ == RUNNING_NORMAL_START) {
            ReportSensorEvent(app.appName_, app.nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_WELL);
        } else if (app.reportState_ == TERMINATED_NORMAL_EXIT) {
            CoreAffinityMgr::Instance().RecycleThreadCoreInfo(static_cast<uint32_t>(app.pid_), app.appName_);
            ReportBaseAppState(app, TERMINATED_NORMAL_EXIT, REASON_NONE);
        } else if (app.reportState_ == TERMINATED_ABNORMAL_EXIT) {
            HandleBaseAppAbnormalEnd(app);
        }
    }
}

// A dead base application that stays TERMINATED comes here again on every
// pass, until a restart succeeds or the policy gives up and the record goes.
void StavikDaemon::HandleBaseAppAbnormalEnd(App::BaseAppInfo& app)
{
    Syslog(LOG_WARNING, "STAVIK: CheckThread : owner=%s, pid=%d, state=%s unexpectedly terminated.",
           app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
    CoreAffinityMgr::Instance().RecycleThreadCoreInfo(static_cast<uint32_t>(app.pid_), app.appName_);
    uint32_t reason = App::GetTerminatedReason(app);
    ReportBaseAppState(app, TERMINATED_ABNORMAL_EXIT, reason);
    ReportSensorEvent(app.appName_, app.nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_FAULT);
    if (app.isReporting_) {
        UnRegServiceCallBack(app.appName_);
    }
    // Also for an application that never had a check.
    UnregisterCheckHeartBeat(app.appName_.c_str(), app.appName_.size());
    if (!app.NeedRestart(reason)) {
        Syslog(LOG_INFO, "STAVIK: CheckThread : owner=%s, pid=%d, state=%s doesn't need to restart",
               app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
        return;
    }
    Syslog(LOG_INFO, "STAVIK: CheckThread : owner=%s, pid=%d, state=%s will restart now", app.appName_.c_str(),
           app.pid_, GetProcessStateStr(app.state_).c_str());
    if (!RestartBaseApp(app.appName_)) {
        Syslog(LOG_ERR, "STAVIK: CheckThread : owner=%s, pid=%d, state=%s restart failed", app.appName_.c_str(),
               app.pid_, GetProcessStateStr(app.state_).c_str());
        return;
    }
    ReportBaseAppState(app, RUNNING_NORMAL_START, REASON_NONE);
    // Every restarted service gets its pipe again, reporting or not.
    if (!RegisterService(app.appName_, app.gid_)) {
        Syslog(LOG_ERR, "STAVIK : procname=%s RegisterService failed", app.appName_.c_str());
        return;
    }
    Syslog(LOG_INFO, "STAVIK: CheckThread : owner=%s, pid=%d, state=%s restart success", app.appName_.c_str(),
           app.pid_, GetProcessStateStr(app.state_).c_str());
}

bool StavikDaemon::RestartBaseApp(const std::string& name)
{
    App::BaseAppInfo* app = FindBaseApp(name);
    if (app == nullptr) {
        Syslog(LOG_WARNING, "STAVIK : Failed to find a process %s from executedBaseApp_", name.c_str());
        return false;
    }
    if (app->state_ != TERMINATED) {
        Syslog(LOG_ERR, "STAVIK : gonna restart process %s, but state=%s is not TERMINATED ", name.c_str(),
               GetProcessStateStr(app->state_).c_str());
        return false;
    }
    Syslog(LOG_INFO, "STAVIK : Restarting process %s", name.c_str());
    if (!app->StartProcess()) {
        Syslog(LOG_ERR, "STAVIK : Restarting process : %s failed ", name.c_str());
        return false;
    }
    if (app->isReporting_) {
        Syslog(LOG_INFO, "STAVIK : Register check for %s, when Restarting.", name.c_str());
        RegisterHeartBeatCheck(name, app->gid_);
    } else {
        ReportSensorEvent(name, app->nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_WELL);
    }
    return true;
}

} // namespace Stavik
