#ifndef STAVIK_PLATFORM_HOST_TUBIX_UNIX_SOCKET_H
#define STAVIK_PLATFORM_HOST_TUBIX_UNIX_SOCKET_H

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace Tubix {

// Connects a non-blocking seqpacket socket to path. While the socket is missing
// or refuses, tries again until timeoutMs has passed (only once without retry).
// The descriptor, -11 when the service did not come up, another negative errno
// on other failures.
int ConnectService(const std::string& path, int32_t timeoutMs, bool retry);

// Binds and listens at path, replacing a stale socket file left by a dead
// process. The descriptor and the socket file's inode, or a negative errno.
int ListenService(const std::string& path, ino_t* inode);

// Removes path if it is still the socket file with this inode.
void UnlinkOwnSocket(const std::string& path, ino_t inode);

} // namespace Tubix

#endif
