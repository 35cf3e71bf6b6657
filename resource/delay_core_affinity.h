#ifndef STAVIK_RESOURCE_DELAY_CORE_AFFINITY_H
#define STAVIK_RESOURCE_DELAY_CORE_AFFINITY_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace Stavik {

// The delay flow failed, or its state was unknown.
constexpr uint32_t DELAY_CORE_AFFINITY_FAILED = 0xF1030C;

struct DelayCoreAffinityCfg {
    uint8_t state;          // 0 bind now and check, 1 stop the check
    int8_t checkNum;        // scans; -1 without limit
    uint8_t isWakeUpEnable; // non-zero: delayed applications wait for a new request after wake-up
    uint8_t reserved;
    uint32_t checkInterval; // milliseconds between scans
};
static_assert(sizeof(DelayCoreAffinityCfg) == 8, "DelayCoreAffinityCfg layout is binding");
static_assert(offsetof(DelayCoreAffinityCfg, checkInterval) == 4, "DelayCoreAffinityCfg layout is binding");

// The last accepted configuration and the check thread's wake-up, beside the
// daemon object. delayCfgMutex_ and delayStopMutex_ are never held together.
extern DelayCoreAffinityCfg delayCfg_;
extern std::mutex delayCfgMutex_;
extern std::condition_variable delayCfgCond_;
// Requests seen by the check thread are counted, so that none is lost when it
// comes before the thread waits.
extern uint64_t delayCfgRequests_;
extern std::mutex delayStopMutex_;
extern std::condition_variable delayStopCond_;

} // namespace Stavik

#endif
