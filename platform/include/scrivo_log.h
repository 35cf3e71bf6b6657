#ifndef STAVIK_PLATFORM_SCRIVO_LOG_H
#define STAVIK_PLATFORM_SCRIVO_LOG_H

#include <cstdint>

// The platform's log library, used by the memory check: a line of a module at
// a level is written only when CheckLogLevel answers 1.
int32_t CheckLogLevel(int32_t module, int32_t level);
void ScrivoRecord(int32_t module, int32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));

#endif
