#include "app/terminated_reason.h"
#include "boot/kill_mgr.h"
#include "core/boot_context.h"
#include "channel/name_tables.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "resource/core_affinity_mgr.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {

// The changes of a pass are gathered under generalAppMutex_ so that the
// reports to the owners go out after it is released. The record stays in the
// map in any case: restarting a general application is its owner's business.
void StavikDaemon::CheckGeneralApps()
{
    std::vector<Message::AppStateChange> changes;
    CollectGeneralAppChanges(changes);
    ReportGeneralAppChanges(changes);
}

void StavikDaemon::CollectGeneralAppChanges(std::vector<Message::AppStateChange>& changes)
{
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    for (auto& entry : generalAppMap_) {
        App::GeneralAppInfo& app = *entry.second;
        app.state_ = app.CheckState();
        if (app.reportState_ == INVALID_INTERMEDIATE_STATE) {
            continue;
        }
        Syslog(LOG_INFO, "STAVIK: CheckThread : generalAppName=%s, pid=%d, state=%s get statechange",
               app.appName_.c_str(), app.pid_, GetProcessStateStr(app.state_).c_str());
        Message::AppStateChange change;
        change.info.appName = app.appName_;
        change.info.pid = static_cast<uint32_t>(app.pid_);
        change.info.gid = app.gid_;
        change.info.state = static_cast<uint32_t>(app.reportState_);
        change.info.reason = App::GetTerminatedReason(app);
        UpdateKillMgrForApp(app, change.info);
        if (ChooseChangeOwner(app, change.owner)) {
            changes.push_back(std::move(change));
        }
        if (app.reportState_ == TERMINATED_NORMAL_EXIT || app.reportState_ == TERMINATED_ABNORMAL_EXIT) {
            CoreAffinityMgr::Instance().RecycleThreadCoreInfo(static_cast<uint32_t>(app.pid_), app.appName_);
        }
        if (app.reportState_ == TERMINATED_ABNORMAL_EXIT) {
            ReportSensorEvent(app.appName_, app.nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_FAULT);
        } else if (app.reportState_ < RUNNING_ABNORMAL_TERM_TIMEOUT) {
            ReportSensorEvent(app.appName_, app.nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_WELL);
        }
    }
}

// A priority application runs before its owner is up: until the owner has
// reported ready, its changes go to the naming service once that has
// announced itself, and before that they are told to nobody.
bool StavikDaemon::ChooseChangeOwner(const App::GeneralAppInfo& app, std::string& owner)
{
    if (!app.isStartedAsPriority_) {
        owner = app.ownerName_;
        return true;
    }
    if (!IsZulServerReady()) {
        return false;
    }
    owner = ZUL_MGR_NAME;
    return true;
}

// While the kill manager's wait is under way, the ends it causes are told to
// the owners as normal ones.
void StavikDaemon::UpdateKillMgrForApp(const App::GeneralAppInfo& app, Message::AppStateInfo& info)
{
    if (app.processType_ != KILL_MGR_PROCESS_TYPE) {
        return;
    }
    BootContext& context = BootContext::Instance();
    const uint32_t pid = static_cast<uint32_t>(app.pid_);
    if (context.isKillMgrWait_.load(std::memory_order_acquire) != 0 && info.state == TERMINATED_ABNORMAL_EXIT) {
        info.state = TERMINATED_NORMAL_EXIT;
        info.reason = REASON_NONE;
        context.ModifyKillMgrTask(app.appName_, pid, KILL_MGR_TASK_END);
    } else if (info.state == TERMINATED_NORMAL_EXIT || info.state == TERMINATED_ABNORMAL_EXIT) {
        context.ModifyKillMgrTask(app.appName_, pid, KILL_MGR_TASK_END);
    } else if (info.state == RUNNING_NORMAL_START || info.state == RUNNING_NORMAL_RESTART) {
        context.ModifyKillMgrTask(app.appName_, pid, KILL_MGR_TASK_START);
    }
}

bool StavikDaemon::IsZulServerReady()
{
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    const App::BaseAppInfo* zul = FindBaseApp(ZUL_MGR_NAME);
    return zul != nullptr && zul->isServerReady_;
}

} // namespace Stavik
