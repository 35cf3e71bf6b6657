#ifndef STAVIK_CORE_BOOT_STRACE_H
#define STAVIK_CORE_BOOT_STRACE_H

#include <cstdint>
#include <string>

namespace Stavik {

// Time stamp of a boot milestone, from the hardware counter:
// "[<seconds>s][BOOT_TRACE][<tag>]", or "" when the counter frequency is 0.
std::string BootStrace(const std::string& tag);

// The raw counter and its frequency; reading them is safe in a signal handler.
uint64_t BootCounter();
uint64_t BootCounterFrequency();

// The same text for a given counter reading and frequency.
std::string FormatBootStrace(uint64_t counter, uint64_t frequency, const std::string& tag);

} // namespace Stavik

#endif
