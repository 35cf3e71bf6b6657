#include "core/boot_strace.h"

#include <time.h>

#include <cstdio>

namespace Stavik {
namespace {

#if defined(__aarch64__)
uint64_t ReadCounter()
{
    uint64_t value;
    asm volatile("mrs %0, cntvct_el0" : "=r"(value));
    return value;
}

uint64_t ReadFrequency()
{
    uint64_t value;
    asm volatile("mrs %0, cntfrq_el0" : "=r"(value));
    return value;
}
#else
// Elsewhere the monotonic clock plays the counter, ticking in nanoseconds since boot.
uint64_t ReadCounter()
{
    struct timespec now {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t ReadFrequency()
{
    return 1000000000ULL;
}
#endif

} // namespace

uint64_t BootCounter()
{
    return ReadCounter();
}

uint64_t BootCounterFrequency()
{
    return ReadFrequency();
}

std::string FormatBootStrace(uint64_t counter, uint64_t frequency, const std::string& tag)
{
    if (frequency == 0) {
        return std::string();
    }
    double seconds = static_cast<double>(counter) / static_cast<double>(frequency);
    char text[329] = {0};
    snprintf(text, sizeof(text), "%f", seconds);
    return "[" + std::string(text) + "s][BOOT_TRACE][" + tag + "]";
}

std::string BootStrace(const std::string& tag)
{
    return FormatBootStrace(ReadCounter(), ReadFrequency(), tag);
}

} // namespace Stavik
