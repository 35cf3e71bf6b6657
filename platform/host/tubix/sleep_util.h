#ifndef STAVIK_PLATFORM_HOST_TUBIX_SLEEP_UTIL_H
#define STAVIK_PLATFORM_HOST_TUBIX_SLEEP_UTIL_H

#include <cstdint>

namespace Tubix {

// Sleeps the whole time, resuming after a signal.
void SleepMs(uint32_t ms);
void SleepUs(uint64_t us);

} // namespace Tubix

#endif
