#ifndef STAVIK_CORE_SLEEP_H
#define STAVIK_CORE_SLEEP_H

#include <cstdint>

namespace Stavik {

// Sleeps the whole time, resuming with the time that remained after a signal.
void SleepNs(uint64_t nanoseconds);

constexpr uint64_t NS_PER_MS = 1000000ULL;

} // namespace Stavik

#endif
