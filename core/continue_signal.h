#ifndef STAVIK_CORE_CONTINUE_SIGNAL_H
#define STAVIK_CORE_CONTINUE_SIGNAL_H

#include <csignal>
#include <string>

namespace Stavik {

// Set by the handler of the continue signal.
extern volatile sig_atomic_t continueSignalCaught_;

// Records the moment of a continue signal; async-signal-safe, a later signal overwrites it.
void NoteContinueSignal();
// Stamp of the last continue signal, empty when none came.
std::string ContinueSignalTime();

} // namespace Stavik

#endif
