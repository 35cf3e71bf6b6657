#include "channel/name_tables.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "supervision/sensor_node_event_reporter.h"

// START_APP, RESTART_APP and TERM_APP. Each entry is handled under its own hold
// of generalAppMutex_, which covers the fork; what the asking owner must hear
// at once is gathered and reported after the last entry, outside the mutex.
// Everything else reaches the owners later through the check thread.
namespace Stavik {
namespace {

using Changes = std::vector<Message::AppStateChange>;
using AppPtr = std::shared_ptr<App::GeneralAppInfo>;

template <typename Request>
void LogControlRequest(const char* word, const std::string& owner, const std::vector<Request>& apps)
{
    std::string names;
    for (const Request& app : apps) {
        names += app.appName + ",";
    }
    Syslog(LOG_INFO, "%s SK receive %s msg from %s, appList=%s", BootStrace(SK_TAG).c_str(), word, owner.c_str(),
           names.c_str());
}

bool IsInGeneralAppMap(const std::string& name)
{
    return generalAppMap_.count(name) != 0;
}

std::string StateWord(const App::AppInfo& app)
{
    return GetProcessStateStr(static_cast<uint64_t>(app.state_));
}

// Only the name, pid 0: what a refusal about an unknown application carries.
App::GeneralAppInfo EmptyRecord(const std::string& name)
{
    App::GeneralAppInfo app;
    app.appName_ = name;
    return app;
}

// A record already in generalAppMap_ is started again only when its process
// has ended; false when the entry is answered here instead.
bool MayStartAgain(StavikDaemon& daemon, const App::GeneralAppInfo& app, const std::string& owner, Changes& changes)
{
    if (app.state_ == RUNNING) {
        daemon.AddAppStateChange(app, changes, RUNNING_NORMAL_START, owner);
        Syslog(LOG_WARNING, "STAVIK : StartApp : appName=%s, pid=%d is already running", app.appName_.c_str(),
               app.pid_);
        return false;
    }
    if (app.state_ == TERMINATED) {
        Syslog(LOG_WARNING,
               "STAVIK : appName=%s, pid=%d, state=%s is in terminated state, but not remove from generalAppMap yet, "
               "so go on",
               app.appName_.c_str(), app.pid_, StateWord(app).c_str());
        return true;
    }
    daemon.AddAppStateChange(app, changes, INVALID_INTERMEDIATE_STATE, owner);
    Syslog(LOG_ERR, "STAVIK : StartApp : appName=%s, pid=%d, state=%s is in invalid state", app.appName_.c_str(),
           app.pid_, StateWord(app).c_str());
    return false;
}

void StartEntry(StavikDaemon& daemon, const AppPtr& app, const Message::StartAppInfo& request,
                const std::string& owner, Changes& changes)
{
    if (!app->UpdateDynamicPara(request.argv, request.dynamicPara)) {
        daemon.AddAppStateChange(*app, changes, TERMINATED_ABNORMAL_EXIT, owner);
        Syslog(LOG_ERR, "STAVIK : StartApp failed : appName=%s, dynamic para invalid", request.appName.c_str());
        return;
    }
    if (app->isStartedAsPriority_) {
        daemon.HandlePriorityApps(*app);
        return;
    }
    if (IsInGeneralAppMap(request.appName) && !MayStartAgain(daemon, *app, owner, changes)) {
        return;
    }
    if (!app->StartProcess()) {
        daemon.AddAppStateChange(*app, changes, TERMINATED_ABNORMAL_EXIT, owner);
        Syslog(LOG_ERR, "STAVIK : StartApp : StartProcess failed : appName=%s, pid=%d, state=%s, %s",
               app->appName_.c_str(), app->pid_, StateWord(*app).c_str(), BootStrace(SK_TAG).c_str());
        daemon.ReportSensorEvent(app->appName_, app->nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_FAULT);
        return;
    }
    app->state_ = STARTING;
    generalAppMap_.emplace(request.appName, app);
}

// A record that has no process gets a new one at once; a running one is sent
// SIGTERM and the check thread starts the new process after the old one died.
void RestartEntry(StavikDaemon& daemon, const Message::RestartAppInfo& request, const std::string& owner,
                  Changes& changes)
{
    AppPtr app = daemon.GetGeneralApp(request.appName, owner);
    if (app == nullptr) {
        Syslog(LOG_ERR, "STAVIK : RestartApp failed: not find app=%s", request.appName.c_str());
        daemon.AddAppStateChange(EmptyRecord(request.appName), changes, TERMINATED_ABNORMAL_EXIT, owner);
        return;
    }
    if (!app->UpdateDynamicPara(request.argv, request.dynamicPara)) {
        daemon.AddAppStateChange(*app, changes, TERMINATED_ABNORMAL_EXIT, owner);
        Syslog(LOG_ERR, "STAVIK : RestartApp failed : appName=%s, dynamic para invalid", request.appName.c_str());
        return;
    }
    app->SetTermBeginTime();
    const bool isRemoved = !IsInGeneralAppMap(request.appName);
    const bool isTerminated = app->state_ == TERMINATED;
    if (isTerminated || isRemoved) {
        if (!app->StartProcess()) {
            daemon.AddAppStateChange(*app, changes, TERMINATED_ABNORMAL_EXIT, owner);
            Syslog(LOG_ERR, "STAVIK : RestartApp failed: StartProcess failed appName=%s, pid=%d",
                   app->appName_.c_str(), app->pid_);
            daemon.ReportSensorEvent(app->appName_, app->nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_FAULT);
            return;
        }
        app->state_ = RESTARTING;
        app->isRestartStarted_ = 1;
        generalAppMap_.emplace(request.appName, app);
        Syslog(LOG_INFO, "STAVIK : RestartApp=%s, pid=%d success, isRemoved=%d, isTermminated=%d",
               app->appName_.c_str(), app->pid_, isRemoved, isTerminated);
        return;
    }
    if (app->state_ != RUNNING) {
        daemon.AddAppStateChange(*app, changes, INVALID_INTERMEDIATE_STATE, owner);
        Syslog(LOG_ERR,
               "STAVIK : RestartApp failed: StartProcess : appName=%s, pid=%d, state=%s is invalid intermediate state",
               app->appName_.c_str(), app->pid_, StateWord(*app).c_str());
        return;
    }
    // The old process must go even if its manifest forbids a kill; the
    // manifest's choice comes back with the new process.
    app->savedForceTerm_ = app->isForceTerm_;
    app->isForceTerm_ = true;
    if (!app->TermProcess()) {
        Syslog(LOG_ERR, "STAVIK : RestartApp failed: TermProcess failed : appName=%s pid=%d, state=%s",
               app->appName_.c_str(), app->pid_, StateWord(*app).c_str());
        return;
    }
    app->state_ = RESTARTING;
    app->isRestartStarted_ = 0;
    Syslog(LOG_INFO,
           "STAVIK : RestartApp set RESTARTING state finished(when app was running before):appName=%s, pid=%d, "
           "state=%s",
           app->appName_.c_str(), app->pid_, StateWord(*app).c_str());
}

// Terminating what doesn't exist, or no longer, counts as success.
void TermEntry(StavikDaemon& daemon, const Message::TermAppInfo& request, const std::string& owner,
               Changes& changes)
{
    AppPtr app = daemon.GetGeneralApp(request.appName, owner);
    if (app == nullptr || app->state_ == INITSTATE) {
        Syslog(LOG_ERR, "STAVIK : termApp failed: not find app=%s", request.appName.c_str());
        daemon.AddAppStateChange(EmptyRecord(request.appName), changes, TERMINATED_NORMAL_EXIT, owner);
        return;
    }
    if (!IsInGeneralAppMap(request.appName)) {
        Syslog(LOG_INFO, "STAVIK : TermGeneralApp:app=%s is already terminated and removed", request.appName.c_str());
        daemon.AddAppStateChange(*app, changes, TERMINATED_NORMAL_EXIT, owner);
        return;
    }
    if (app->state_ == TERMINATED) {
        Syslog(LOG_INFO, "STAVIK : TermGeneralApp:app=%s is already terminated but not removed",
               request.appName.c_str());
        daemon.AddAppStateChange(*app, changes, TERMINATED_NORMAL_EXIT, owner);
        return;
    }
    if (app->state_ != RUNNING) {
        daemon.AddAppStateChange(*app, changes, INVALID_INTERMEDIATE_STATE, owner);
        Syslog(LOG_ERR,
               "STAVIK : TermGeneralApp failed: appName=%s, pid=%d, state=%s is invalid intermediate state",
               app->appName_.c_str(), app->pid_, StateWord(*app).c_str());
        return;
    }
    app->SetTermBeginTime();
    if (!app->TermProcess()) {
        Syslog(LOG_ERR, "STAVIK : TermGeneralApp failed: TermProcess failed: appName=%s, pid=%d, state=%s)",
               app->appName_.c_str(), app->pid_, StateWord(*app).c_str());
        return;
    }
    app->state_ = TERMINATING;
}

} // namespace

void StavikDaemon::StartApp(const std::vector<Message::StartAppInfo>& apps, const std::string& owner)
{
    LogControlRequest("START_APP", owner, apps);
    if (apps.empty()) {
        return;
    }
    Changes changes;
    for (const Message::StartAppInfo& request : apps) {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        AppPtr app = GetGeneralApp(request.appName, owner);
        if (app == nullptr) {
            // The rest of the list and the answers gathered so far are dropped.
            Syslog(LOG_ERR, "STAVIK : StartApp: appName=%s is null", request.appName.c_str());
            return;
        }
        StartEntry(*this, app, request, owner, changes);
    }
    if (!changes.empty()) {
        ReportGeneralAppChanges(changes);
    }
}

void StavikDaemon::RestartApp(const std::vector<Message::RestartAppInfo>& apps, const std::string& owner)
{
    LogControlRequest("RESTART_APP", owner, apps);
    if (apps.empty()) {
        return;
    }
    Changes changes;
    for (const Message::RestartAppInfo& request : apps) {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        RestartEntry(*this, request, owner, changes);
    }
    if (!changes.empty()) {
        ReportGeneralAppChanges(changes);
    }
}

void StavikDaemon::TermApp(const std::vector<Message::TermAppInfo>& apps, const std::string& owner)
{
    LogControlRequest("TERM_APP", owner, apps);
    if (apps.empty()) {
        return;
    }
    Changes changes;
    for (const Message::TermAppInfo& request : apps) {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        TermEntry(*this, request, owner, changes);
    }
    if (!changes.empty()) {
        ReportGeneralAppChanges(changes);
    }
}

// The changes of a request name the asking owner, not the record's owner.
void StavikDaemon::AddAppStateChange(const App::AppInfo& app, std::vector<Message::AppStateChange>& changes,
                                     ReportAppStateType state, const std::string& owner)
{
    Message::AppStateChange change;
    change.owner = owner;
    change.info.appName = app.appName_;
    change.info.pid = static_cast<uint32_t>(app.pid_);
    change.info.gid = app.gid_;
    change.info.state = static_cast<uint32_t>(state);
    change.info.reason = REASON_NONE;
    changes.push_back(std::move(change));
}

// The owner asks for an application that already runs since the boot: it is
// told the present state straight away, and from now on its changes go to it
// by the ordinary path.
void StavikDaemon::HandlePriorityApps(App::GeneralAppInfo& app)
{
    Syslog(LOG_INFO, "STAVIK : HandlePriorityApps app=%s, pid=%d, state=%s to owner=%s", app.appName_.c_str(),
           app.pid_, StateWord(app).c_str(), app.ownerName_.c_str());
    app.isStartedAsPriority_ = false;
    Message::AppStateInfo info;
    if (GetPriorityAppState(app, info)) {
        (void)ReportAppState({info}, app.ownerName_);
    }
}

} // namespace Stavik
