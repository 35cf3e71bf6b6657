#ifndef STAVIK_SUPERVISION_SYS_CHECK_SERVER_H
#define STAVIK_SUPERVISION_SYS_CHECK_SERVER_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {

class StavikDaemon;

// What the memory check keeps across calls; one per process, since the check
// has one user.
struct SysCheckState {
    bool hasLastCheck = false;
    uint64_t lastCheckNs = 0;
    std::set<int32_t> nodes;  // found at the first successful scan
    bool isScanFailed = false;
};

// Watches the free memory of the NUMA nodes the operating system manages and
// raises the fault of the node "os-memory" below the lower threshold; it is
// cleared only above the upper one. The first shortage runs a diagnostic
// script, once, until memory is back above the upper threshold.
class SysCheckServer : public SensorNodeEventReporter {
public:
    // The process-wide state and the steady clock, unless a test gives its own.
    SysCheckServer();
    SysCheckServer(SysCheckState& state, std::function<uint64_t()> nowNs);

    bool Init();
    // Called every 200 ms; acts once in 60 s.
    void CheckMemory();
    // Disarms the script and drops the node.
    void Stop();
    bool GetFreeMemory(uint64_t& out);
    bool GetNumaNodeFreeMemory(int32_t node, uint64_t& out);
    bool GetOsNumaNodes(std::set<int32_t>& nodes);
    // The path is a system path, resolved under the sandbox root.
    std::set<int32_t> ReadNumaNodeFile(const std::string& path);
    std::vector<int32_t> ParseNumaNodeList(const std::string& text);

private:
    void RunScriptOnce();

    bool isScriptArmed_ = true;
    SysCheckState& state_;
    std::function<uint64_t()> nowNs_;
};

// Body of the memory check thread.
void SysCheck(StavikDaemon* daemon);

} // namespace Stavik

#endif
