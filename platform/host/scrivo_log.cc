// The platform's log library on a host: its lines go through the daemon's
// log facade. Level 1 is information, 2 a warning, 3 an error; other levels
// are not written.
#include "scrivo_log.h"

#include <cstdarg>

#include "core/log.h"

namespace {

int SyslogLevel(int32_t level)
{
    switch (level) {
        case 1:
            return LOG_INFO;
        case 2:
            return LOG_WARNING;
        default:
            return LOG_ERR;
    }
}

} // namespace

int32_t CheckLogLevel(int32_t, int32_t level)
{
    return level >= 1 && level <= 3 ? 1 : 0;
}

void ScrivoRecord(int32_t module, int32_t level, const char* format, ...)
{
    if (CheckLogLevel(module, level) != 1) {
        return;
    }
    va_list args;
    va_start(args, format);
    Stavik::VSyslog(SyslogLevel(level), format, args);
    va_end(args);
}
