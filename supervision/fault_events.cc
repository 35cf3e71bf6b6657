#include "core/log.h"
#include "core/stavik_daemon.h"
#include "heart_beat.h"
#include "supervision/heart_beat_notify.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {

// Only the name and the event matter: names outside the node table fall
// through silently.
void StavikDaemon::ReportSensorEvent(const std::string& name, uint32_t, uint32_t, uint32_t, uint32_t event)
{
    SensorNodeEventReporter::Instance().ReportEvent(name, event);
}

void StavikDaemon::RegisterSensorNodes()
{
    SensorNodeEventReporter::Instance().RegisterBaseSensorNodes();
}

// A failed registration leaves the application running without a check.
void StavikDaemon::RegisterHeartBeatCheck(const std::string& name, uint32_t gid)
{
    int32_t ret = RegisterCheckHeartBeat(name.c_str(), name.size(), gid, HeartBeatNotify);
    if (ret != 0) {
        Syslog(LOG_ERR, "Register heart beat for %s failed. (ret=%d)", name.c_str(), ret);
    }
}

// Once this returns no notification runs. The check thread may still register
// a restart until it is joined; a notification of that check meets the daemon
// still standing or, after the stop, the closed gate.
void StavikDaemon::ReleaseFaultSupervision()
{
    SensorNodeEventReporter::Instance().UnregisterAllSensorNode();
    DisableAllCheckHeartBeat();
}

} // namespace Stavik
