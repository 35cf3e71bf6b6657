#ifndef STAVIK_PLATFORM_HOST_TUBIX_RUNTIME_DIR_H
#define STAVIK_PLATFORM_HOST_TUBIX_RUNTIME_DIR_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tubix {

// Where services meet: $TUBIX_DIR, or /run/tubix. Read at every call, so that
// a process (or a test) may move it.
std::string RuntimeDir();
// $PROC_NAME, or empty.
std::string OwnProcName();
// $TUBIX_OPEN_TIMEOUT_MS, or 1000.
int32_t DefaultOpenTimeoutMs();
// Frames one pipe's send queue holds at most: $TUBIX_SEND_QUEUE_MAX when it
// is from 1 to 4096, else 4096.
size_t SendQueueMaxMessages();

// False, with a log line, for a name that is empty or could leave the runtime directory.
bool IsSafeServiceName(const std::string& name);
// Creates the missing directories above path. They are world-writable with the
// sticky bit, like /tmp, so that services of every user can meet there.
bool MakeParentDirs(const std::string& path);

} // namespace Tubix

#endif
