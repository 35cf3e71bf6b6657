#include "channel/message.h"
#include "channel/name_tables.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {
namespace {

constexpr uint32_t ReportWord(Message::BaseServiceStateType type)
{
    return static_cast<uint32_t>(type);
}

} // namespace

void StavikDaemon::UpdateBaseAppState(const std::string& name, uint32_t state)
{
    Syslog(LOG_INFO, "%s SK receive BASESERVICE_STATE_REPORT msg from %s report state=%s",
           BootStrace(SK_TAG).c_str(), name.c_str(), GetBaseServiceStateTypeStr(state).c_str());
    if (state == ReportWord(Message::BaseServiceStateType::INIT)) {
        HandleZulInit(name);
    } else if (state == ReportWord(Message::BaseServiceStateType::RESTARTING)) {
        HandleZulRestarting(name);
    } else if (state == ReportWord(Message::BaseServiceStateType::RUNNING)) {
        UpdateOwnerReady(name);
        SetReportedBaseAppState(name, RUNNING);
    } else if (state == ReportWord(Message::BaseServiceStateType::TERMINATING)) {
        SetReportedBaseAppState(name, TERMINATING);
    }
}

// A naming service that comes up learns of the daemon and of what ran before it.
void StavikDaemon::HandleZulInit(const std::string& name)
{
    if (name != ZUL_MGR_NAME) {
        return;
    }
    RegisterVfs();
    ReportAllGeneralAppsToZul();
    UpdateOwnerReady(name);
}

// A naming service that restarts has lost its picture: it gets all of it again.
void StavikDaemon::HandleZulRestarting(const std::string& name)
{
    if (name != ZUL_MGR_NAME) {
        return;
    }
    ReportRunningGeneralAppsToZul();
    ReportAllBaseAppsToZul();
}

// The reported state is taken over, except that a process already seen dead
// stays TERMINATED. The count of reports tells a waiting base start to look again.
void StavikDaemon::SetReportedBaseAppState(const std::string& name, ProcessState state)
{
    std::lock_guard<std::mutex> baseLock(baseAppMutex_);
    App::BaseAppInfo* app = FindBaseApp(name);
    if (app == nullptr) {
        Syslog(LOG_ERR, "STAVIK : UpdateBaseAppState failed, not find app=%s from executedBaseApp", name.c_str());
        return;
    }
    if (state == RUNNING) {
        ReportSensorEvent(name, app->nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_WELL);
    }
    {
        std::lock_guard<std::mutex> stateLock(stateMutex_);
        if (state == RUNNING || app->state_ != TERMINATED) {
            app->state_ = state;
        }
        ++stateReports_;
    }
    stateCond_.notify_one();
}

void StavikDaemon::UpdateOwnerReady(const std::string& name)
{
    PUpdateBaseServerReadyInfo(name);
    // From now on the changes of the owner's priority applications go to the owner.
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    for (auto& entry : allGeneralAppMap_) {
        if (entry.second->ownerName_ == name) {
            entry.second->isStartedAsPriority_ = false;
        }
    }
}

void StavikDaemon::PUpdateBaseServerReadyInfo(const std::string& name)
{
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    App::BaseAppInfo* app = FindBaseApp(name);
    if (app == nullptr) {
        Syslog(LOG_ERR, "PUpdateBaseServerReadyInfo failed, not find base app=%s", name.c_str());
        return;
    }
    app->isServerReady_ = true;
}

} // namespace Stavik
