#ifndef STAVIK_SUPERVISION_SYS_CHECK_LOG_H
#define STAVIK_SUPERVISION_SYS_CHECK_LOG_H

#include <cstdint>

#include "scrivo_log.h"

namespace Stavik {

// The memory check logs through the platform's log library.
constexpr int32_t SYS_CHECK_MODULE = 54;
// The same module with bit 24 set.
constexpr int32_t SYS_CHECK_MODULE_OS = 0x1000036;
constexpr int32_t SYS_CHECK_INFO = 1;
constexpr int32_t SYS_CHECK_ERROR = 3;

} // namespace Stavik

// Every line starts with the class and the source line.
#define SYS_CHECK_LOG(module, level, format, ...)                                                         \
    do {                                                                                                  \
        if (CheckLogLevel((module), (level)) == 1) {                                                      \
            ScrivoRecord((module), (level), "[%s:%d]" format, "SysCheckServer", __LINE__, ##__VA_ARGS__); \
        }                                                                                                 \
    } while (0)

#endif
