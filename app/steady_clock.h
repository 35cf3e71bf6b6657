#ifndef STAVIK_APP_STEADY_CLOCK_H
#define STAVIK_APP_STEADY_CLOCK_H

#include <chrono>
#include <cstdint>

namespace Stavik {

// Supervision times are nanoseconds of the steady clock, so that a change of
// the wall clock never fires a time-out or a restart window.
inline uint64_t SteadyNowNs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// Milliseconds from one steady time to a later one, truncated toward zero.
inline int64_t ElapsedMs(uint64_t fromNs, uint64_t toNs)
{
    constexpr int64_t nsPerMs = 1000000;
    return static_cast<int64_t>(toNs - fromNs) / nsPerMs;
}

} // namespace Stavik

#endif
