#include "tubix/sleep_util.h"

#include <errno.h>
#include <time.h>

namespace Tubix {

void SleepMs(uint32_t ms)
{
    SleepUs(static_cast<uint64_t>(ms) * 1000);
}

void SleepUs(uint64_t us)
{
    struct timespec left = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace Tubix
