#include <errno.h>

#include <cstdlib>

#include "zul.h"

// Runs between fork and exec, so it only sets the name that the child's own
// server and its hellos carry, and never logs.
int32_t ZULInitProc(const AppConfig& config)
{
    if (config.appName.empty()) {
        errno = EINVAL;
        return -1;
    }
    return setenv("PROC_NAME", config.appName.c_str(), 1) == 0 ? 0 : -1;
}
