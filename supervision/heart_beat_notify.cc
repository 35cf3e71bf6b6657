#include "supervision/heart_beat_notify.h"

#include <mutex>

#include "core/log.h"
#include "core/stavik_daemon.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {
namespace {

const uint32_t HEART_BEAT_LOST = 1;
const uint32_t HEART_BEAT_RECOVERY = 0;

struct NotifyTarget {
    std::mutex mutex;
    StavikDaemon* daemon = nullptr;
    std::shared_ptr<CallbackGate> gate;
};

NotifyTarget& Target()
{
    static NotifyTarget target;
    return target;
}

} // namespace

void BindHeartBeatNotify(StavikDaemon* daemon, std::shared_ptr<CallbackGate> gate)
{
    NotifyTarget& target = Target();
    std::lock_guard<std::mutex> lock(target.mutex);
    target.daemon = daemon;
    target.gate = std::move(gate);
}

uint32_t HeartBeatNotify(const char* appName, size_t nameLen, int32_t pid, uint32_t status)
{
    StavikDaemon* daemon = nullptr;
    std::shared_ptr<CallbackGate> gate;
    {
        NotifyTarget& target = Target();
        std::lock_guard<std::mutex> lock(target.mutex);
        daemon = target.daemon;
        gate = target.gate;
    }
    uint32_t handled = 0;
    if (gate != nullptr) {
        gate->Pass([&] { handled = daemon->HandleHeartBeatNotify(appName, nameLen, pid, status); });
    }
    return handled;
}

uint32_t StavikDaemon::HandleHeartBeatNotify(const char* appName, size_t nameLen, int32_t pid, uint32_t status)
{
    if (nameLen == 0 || appName == nullptr) {
        Syslog(LOG_ERR, "Process heart beat notify, app name is invalid. (nameLen=%zu)", nameLen);
        return 0;
    }
    const std::string name(appName, nameLen);
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    const App::BaseAppInfo* app = FindBaseApp(name);
    if (app == nullptr) {
        Syslog(LOG_ERR, "Process heart beat notify, not find base app=%s", name.c_str());
        return 0;
    }
    if (status == HEART_BEAT_LOST) {
        Syslog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=lost)", name.c_str(), pid);
        ReportSensorEvent(name, app->nodeType_, SENSOR_VALUE_HEART_BEAT, 0, SENSOR_EVENT_FAULT);
        return 1;
    }
    if (status == HEART_BEAT_RECOVERY) {
        Syslog(LOG_INFO, "Process heart beat notify. (app=%s,pid=%d,status=recovery)", name.c_str(), pid);
        ReportSensorEvent(name, app->nodeType_, SENSOR_VALUE_HEART_BEAT, 0, SENSOR_EVENT_WELL);
        return 1;
    }
    Syslog(LOG_WARNING, "App status is invalid. (status=%u)", status);
    return 0;
}

} // namespace Stavik
