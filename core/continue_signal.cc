#include "core/continue_signal.h"

#include <atomic>
#include <cstdint>

#include "core/boot_strace.h"
#include "core/constants.h"

namespace Stavik {

volatile sig_atomic_t continueSignalCaught_ = 0;

namespace {

// The handler only stores the raw counter: formatting the stamp allocates,
// which a signal handler must not do. The text is made when it is read.
std::atomic<uint64_t> continueSignalCounter{0};

} // namespace

void NoteContinueSignal()
{
    continueSignalCounter.store(BootCounter(), std::memory_order_relaxed);
    continueSignalCaught_ = 1;
}

std::string ContinueSignalTime()
{
    if (continueSignalCaught_ == 0) {
        return std::string();
    }
    return FormatBootStrace(continueSignalCounter.load(std::memory_order_relaxed), BootCounterFrequency(), SK_TAG);
}

} // namespace Stavik
