#ifndef STAVIK_CORE_SK_LOG_H
#define STAVIK_CORE_SK_LOG_H

#include "core/log.h"

namespace Stavik {

// Log of code that may run before the continue point: in a quick start each
// line is one record of the kernel message device, otherwise a syslog line.
void SkLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

} // namespace Stavik

#define SK_LOG(level, format, ...) ::Stavik::SkLog(level, format, ##__VA_ARGS__)

#endif
