#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {
namespace {

Message::AppStateInfo StateInfo(const App::AppInfo& app, uint32_t state, uint32_t reason)
{
    Message::AppStateInfo info;
    info.appName = app.appName_;
    info.pid = static_cast<uint32_t>(app.pid_);
    info.gid = app.gid_;
    info.state = state;
    info.reason = reason;
    return info;
}

// What a snapshot tells of a live record: up, or the last verdict.
uint32_t SnapshotState(const App::AppInfo& app)
{
    return app.state_ == RUNNING ? static_cast<uint32_t>(RUNNING_NORMAL_START)
                                 : static_cast<uint32_t>(app.reportState_);
}

} // namespace

bool StavikDaemon::ReportAppState(const std::vector<Message::AppStateInfo>& apps, const std::string& owner)
{
    return master_.ReportAppState(apps, owner);
}

bool StavikDaemon::ReportAppDetailStatus(const Message::AppDetailStatusMap& statusMap, const std::string& owner)
{
    return master_.ReportAppDetailStatus(statusMap, owner);
}

// The naming service hears of every change; each owner of its own, in the
// order of the base manifest. An owner that is no enabled base service has no
// pipe, so only the naming service hears of its applications.
void StavikDaemon::ReportGeneralAppChanges(const std::vector<Message::AppStateChange>& changes)
{
    if (changes.empty()) {
        return;
    }
    std::vector<Message::AppStateInfo> all;
    all.reserve(changes.size());
    for (const Message::AppStateChange& change : changes) {
        all.push_back(change.info);
    }
    if (!ReportAppState(all, ZUL_MGR_NAME)) {
        Syslog(LOG_ERR, "STAVIK : CheckThread : report general apps' changes to ZUL failed");
    }
    for (const std::string& owner : enabledBaseApps_) {
        if (owner == ZUL_MGR_NAME) {
            continue;
        }
        std::vector<Message::AppStateInfo> own;
        for (const Message::AppStateChange& change : changes) {
            if (change.owner == owner) {
                own.push_back(change.info);
            }
        }
        if (!ReportAppState(own, owner)) {
            Syslog(LOG_ERR, "STAVIK : CheckThread : report general apps' changes to owner %s failed", owner.c_str());
        }
    }
}

void StavikDaemon::ReportBaseAppState(const App::AppInfo& app, ReportAppStateType state, uint32_t reason)
{
    if (app.appName_ == ZUL_MGR_NAME) {
        return;
    }
    if (ReportAppState({StateInfo(app, static_cast<uint32_t>(state), reason)}, ZUL_MGR_NAME)) {
        Syslog(LOG_INFO, "STAVIK : report %s's state: %d to zulmgr successfully", app.appName_.c_str(), state);
    } else {
        Syslog(LOG_ERR, "STAVIK : report %s's state: %d to zulmgr failed", app.appName_.c_str(), state);
    }
}

bool StavikDaemon::GetPriorityAppState(App::GeneralAppInfo& app, Message::AppStateInfo& info)
{
    if (app.startupPriority_ == -1) {
        return false;
    }
    app.state_ = app.CheckState();
    info = StateInfo(app, SnapshotState(app), REASON_NONE);
    return true;
}

// For a naming service that has just come up: the priority applications ran
// before it, so they are the ones it can't know of.
void StavikDaemon::ReportAllGeneralAppsToZul()
{
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    std::vector<Message::AppStateInfo> apps;
    for (auto& entry : allGeneralAppMap_) {
        Message::AppStateInfo info;
        if (GetPriorityAppState(*entry.second, info)) {
            UpdateKillMgrForApp(*entry.second, info);
            apps.push_back(info);
        }
    }
    ReportAppState(apps, ZUL_MGR_NAME);
}

void StavikDaemon::ReportRunningGeneralAppsToZul()
{
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    std::vector<Message::AppStateInfo> apps;
    apps.reserve(generalAppMap_.size());
    for (const auto& entry : generalAppMap_) {
        apps.push_back(StateInfo(*entry.second, SnapshotState(*entry.second), REASON_NONE));
    }
    ReportAppState(apps, ZUL_MGR_NAME);
}

void StavikDaemon::ReportAllBaseAppsToZul()
{
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    for (const App::BaseAppInfo& app : executedBaseApp_) {
        ReportBaseAppState(app, app.state_ == TERMINATED ? TERMINATED_ABNORMAL_EXIT : RUNNING_NORMAL_START,
                           REASON_NONE);
    }
}

} // namespace Stavik
