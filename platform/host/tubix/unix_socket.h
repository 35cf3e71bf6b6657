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

// 0 when the listening side of the connected socket fd is root or of group
// gid; otherwise -13, with a line naming both groups: a process can't pose as
// a service by binding its name first.
int CheckServicePeer(int fd, const std::string& path, uint32_t gid);

// The listening socket made for this process before exec ($TUBIX_LISTEN_FD),
// when it is bound to path; the variable is then removed. Its descriptor and
// the socket file's inode, or -1 when there is none to adopt.
int AdoptInheritedListener(const std::string& path, ino_t* inode);

// Binds and listens at path, replacing a stale socket file left by a dead
// process. The descriptor and the socket file's inode, or a negative errno.
int ListenService(const std::string& path, ino_t* inode);

// Removes path if it is still the socket file with this inode.
void UnlinkOwnSocket(const std::string& path, ino_t inode);

} // namespace Tubix

#endif
