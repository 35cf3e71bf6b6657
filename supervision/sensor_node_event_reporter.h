#ifndef STAVIK_SUPERVISION_SENSOR_NODE_EVENT_REPORTER_H
#define STAVIK_SUPERVISION_SENSOR_NODE_EVENT_REPORTER_H

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace Stavik {

// Sensor values the daemon reports for its named services, and the events.
constexpr uint32_t SENSOR_VALUE_PROCESS = 208;
constexpr uint32_t SENSOR_VALUE_HEART_BEAT = 39;
constexpr uint32_t SENSOR_EVENT_FAULT = 1;
constexpr uint32_t SENSOR_EVENT_WELL = 0;

struct SensorNodeCfg {
    std::string name;  // at most 19 bytes fit
    uint16_t nodeType = 0;
    uint8_t sensorType = 0;
    int32_t scope = -1;  // above 0: device 0 only; otherwise every device
};

struct SensorNodeInfo {
    uint8_t sensorType = 0;
    uint16_t nodeType = 0;
    uint32_t event = 0;
    std::map<uint32_t, uint64_t> reportIds;  // device id to node handle
};

// Named fault nodes on every device of the board. An event reaches the
// platform only when it differs from the last one, so the first 0 never does.
class SensorNodeEventReporter {
public:
    SensorNodeEventReporter() = default;
    virtual ~SensorNodeEventReporter() = default;
    SensorNodeEventReporter(const SensorNodeEventReporter&) = delete;
    SensorNodeEventReporter& operator=(const SensorNodeEventReporter&) = delete;

    // The process-wide instance, with the nodes of the named services.
    static SensorNodeEventReporter& Instance();

    bool RegisterSensorNode(const SensorNodeCfg& cfg);
    bool UnregisterSensorNode(const std::string& name);
    bool UnregisterAllSensorNode();
    void ReportEvent(const std::string& name, uint32_t event);
    // The nodes of the named services, in table order, up to the first failure.
    bool RegisterBaseSensorNodes();

    static bool IsFault(uint8_t sensorType, uint16_t nodeType);
    // Asked of the platform once per process.
    static uint32_t GetDeviceNum();
    static std::set<uint32_t> GetReportIds(int32_t scope);

private:
    bool UnregisterLocked(const std::string& name);

    // Held across the platform calls: the check thread and request threads
    // report under different application locks.
    std::mutex mutex_;
    std::map<std::string, SensorNodeInfo> nodes_;
};

} // namespace Stavik

#endif
