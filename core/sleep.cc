#include "core/sleep.h"

#include <time.h>

#include <cerrno>

namespace Stavik {

void SleepNs(uint64_t nanoseconds)
{
    struct timespec request {};
    request.tv_sec = static_cast<time_t>(nanoseconds / 1000000000ULL);
    request.tv_nsec = static_cast<long>(nanoseconds % 1000000000ULL);
    struct timespec remaining {};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) {
        request = remaining;
    }
}

} // namespace Stavik
