#include "supervision/sensor_node_event_reporter.h"

#include <vector>

#include "core/log.h"
#include "hal.h"
#include "securec.h"

namespace Stavik {
namespace {

const uint32_t DEVICE_NUM_MAX = 128;

const std::vector<SensorNodeCfg>& BaseSensorNodes()
{
    static const std::vector<SensorNodeCfg> nodes = {
        {"zulmgr", 0x0602, 0x27, -1},
        {"proc_launcher", 0x0603, 0x27, -1},
    };
    return nodes;
}

uint32_t QueryDeviceNum()
{
    uint32_t devNum = 0;
    int32_t drvRet = drvGetDevNum(&devNum);
    if (drvRet == 0 && devNum <= DEVICE_NUM_MAX) {
        Syslog(LOG_INFO, "SensorNodeEventReporter GetDeviceNum success. devNum=%u", devNum);
        return devNum;
    }
    Syslog(LOG_ERR, "SensorNodeEventReporter GetDeviceNum fail. drvRet=%u, devNum=%u", static_cast<uint32_t>(drvRet),
           devNum);
    return 1;
}

} // namespace

SensorNodeEventReporter& SensorNodeEventReporter::Instance()
{
    static SensorNodeEventReporter reporter;
    return reporter;
}

uint32_t SensorNodeEventReporter::GetDeviceNum()
{
    static const uint32_t devNum = QueryDeviceNum();
    return devNum;
}

std::set<uint32_t> SensorNodeEventReporter::GetReportIds(int32_t scope)
{
    if (scope > 0) {
        return {0};
    }
    std::set<uint32_t> ids;
    const uint32_t devNum = GetDeviceNum();
    for (uint32_t id = 0; id < devNum; ++id) {
        ids.insert(id);
    }
    return ids;
}

bool SensorNodeEventReporter::IsFault(uint8_t sensorType, uint16_t nodeType)
{
    return nodeType == 0x0617 && sensorType != 0x27;
}

bool SensorNodeEventReporter::RegisterSensorNode(const SensorNodeCfg& cfg)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (nodes_.count(cfg.name) != 0) {
        return true;
    }
    HalSensorNodeCfg halCfg {};
    if (strcpy_s(halCfg.name, sizeof(halCfg.name), cfg.name.c_str()) != EOK) {
        Syslog(LOG_ERR, "SensorNodeEventReporter RegisterSensorNode Copy sensor node name for %s failed.",
               cfg.name.c_str());
        return false;
    }
    halCfg.nodeType = cfg.nodeType;
    halCfg.sensorType = cfg.sensorType;
    SensorNodeInfo info;
    info.nodeType = cfg.nodeType;
    info.sensorType = cfg.sensorType;
    for (uint32_t id : GetReportIds(cfg.scope)) {
        Syslog(LOG_INFO, "SensorNodeEventReporter RegisterSensorNode for %s, id=%u", cfg.name.c_str(), id);
        uint64_t handle = 0;
        int32_t ret = halSensorNodeRegister(id, &halCfg, &handle);
        if (ret != 0) {
            Syslog(LOG_ERR, "SensorNodeEventReporter RegisterSensorNode for %s failed. (ret=%u)", cfg.name.c_str(),
                   static_cast<uint32_t>(ret));
            continue;
        }
        info.reportIds[id] = handle;
    }
    Syslog(LOG_INFO,
           "SensorNodeEventReporter RegisterSensorNode for %s finish, nodeType=0x%x, sensorType=0x%x, reportIds "
           "size=%zu",
           cfg.name.c_str(), cfg.nodeType, cfg.sensorType, info.reportIds.size());
    nodes_[cfg.name] = info;
    return true;
}

void SensorNodeEventReporter::ReportEvent(const std::string& name, uint32_t event)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = nodes_.find(name);
    if (found == nodes_.end() || found->second.event == event) {
        return;
    }
    SensorNodeInfo& info = found->second;
    info.event = event;
    const int fault = IsFault(info.sensorType, info.nodeType) ? 1 : 0;
    for (const auto& report : info.reportIds) {
        int32_t ret = halSensorNodeUpdateState(report.first, report.second, fault, event);
        if (ret == 0) {
            Syslog(LOG_INFO, "SensorNodeEventReporter ReportEvent success.(nodeName=%s,id=%u,fault=%d,event=%d)",
                   name.c_str(), report.first, fault, static_cast<int>(event));
        } else {
            Syslog(LOG_ERR, "SensorNodeEventReporter ReportEvent failed.(nodeName=%s,id=%u,fault=%d,event=%d,ret=%u)",
                   name.c_str(), report.first, fault, static_cast<int>(event), static_cast<uint32_t>(ret));
        }
    }
}

bool SensorNodeEventReporter::UnregisterSensorNode(const std::string& name)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return UnregisterLocked(name);
}

bool SensorNodeEventReporter::UnregisterAllSensorNode()
{
    std::lock_guard<std::mutex> lock(mutex_);
    bool result = true;
    while (!nodes_.empty()) {
        result = UnregisterLocked(nodes_.begin()->first) && result;
    }
    return result;
}

// The caller holds mutex_. The entry goes whatever the platform answers.
bool SensorNodeEventReporter::UnregisterLocked(const std::string& name)
{
    auto found = nodes_.find(name);
    if (found == nodes_.end()) {
        return true;
    }
    bool result = true;
    for (const auto& report : found->second.reportIds) {
        int32_t ret = halSensorNodeUnregister(report.first, report.second);
        if (ret != 0) {
            Syslog(LOG_ERR, "SensorNodeEventReporter UnregisterSensorNode for %s failed. (id=%u,ret=%u)", name.c_str(),
                   report.first, static_cast<uint32_t>(ret));
            result = false;
        }
    }
    nodes_.erase(found);
    return result;
}

bool SensorNodeEventReporter::RegisterBaseSensorNodes()
{
    for (const SensorNodeCfg& cfg : BaseSensorNodes()) {
        if (!RegisterSensorNode(cfg)) {
            return false;
        }
    }
    return true;
}

} // namespace Stavik
