#ifndef STAVIK_BOOT_KILL_MGR_H
#define STAVIK_BOOT_KILL_MGR_H

#include <cstdint>

namespace Stavik {

const uint32_t KILL_MGR_NAME_LEN = 80;

// The argument of the kill manager's task requests; the kernel reads it as is.
struct KillMgrTaskInfo {
    uint32_t pid;
    char name[KILL_MGR_NAME_LEN];
};
static_assert(sizeof(KillMgrTaskInfo) == 84, "the kill manager reads 84 bytes");

// Request numbers are KILL_MGR_IOCTL_BASE | code. Their size field says 4
// whatever the argument is; the driver knows them by these exact values.
const uint32_t KILL_MGR_IOCTL_BASE = 0x40046B00;
const uint32_t KILL_MGR_TASK_START = 3;
const uint32_t KILL_MGR_TASK_END = 4;
const uint32_t KILL_MGR_WAIT = 5;
const uint32_t KILL_MGR_WAIT_TIMEOUT = 200;

// Process type whose applications the kill manager is told about.
const int32_t KILL_MGR_PROCESS_TYPE = 1;

} // namespace Stavik

#endif
