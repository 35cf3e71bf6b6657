#include "tubix/sleep_util.h"

#include <errno.h>
#include <time.h>

namespace Tubix {

void SleepMs(uint32_t ms)
{
    struct timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace Tubix
