// A service started by a supervisor finds its listening socket already made,
// so that it could be connected to from before its main ran.
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/log.h"
#include "tubix/unix_socket.h"

namespace Tubix {
namespace {

const char LISTEN_FD_ENV[] = "TUBIX_LISTEN_FD";

bool ParseDescriptor(const char* text, int* fd)
{
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 0 || value > INT32_MAX) {
        return false;
    }
    *fd = static_cast<int>(value);
    return true;
}

int SocketOption(int fd, int option)
{
    int value = 0;
    socklen_t length = sizeof(value);
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

// A seqpacket socket that listens at path.
bool IsListenerAt(int fd, const std::string& path)
{
    if (SocketOption(fd, SO_TYPE) != SOCK_SEQPACKET || SocketOption(fd, SO_ACCEPTCONN) != 1) {
        return false;
    }
    sockaddr_un address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sun_family != AF_UNIX) {
        return false;
    }
    size_t pathLength = length > offsetof(sockaddr_un, sun_path) ? length - offsetof(sockaddr_un, sun_path) : 0;
    pathLength = strnlen(address.sun_path, pathLength);
    return path.compare(0, std::string::npos, address.sun_path, pathLength) == 0;
}

} // namespace

int AdoptInheritedListener(const std::string& path, ino_t* inode)
{
    const char* value = getenv(LISTEN_FD_ENV);
    if (value == nullptr) {
        return -1;
    }
    std::string text = value;
    // Whatever comes of it, the variable and the descriptor are not handed on.
    unsetenv(LISTEN_FD_ENV);
    int fd = -1;
    if (!ParseDescriptor(text.c_str(), &fd) || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        Stavik::Syslog(LOG_WARNING, "Tubix: %s=%s is not a descriptor of this process; serving without it",
                       LISTEN_FD_ENV, text.c_str());
        return -1;
    }
    struct stat info;
    if (!IsListenerAt(fd, path) || lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        Stavik::Syslog(LOG_WARNING, "Tubix: %s=%d is not a listening socket at %s; serving without it",
                       LISTEN_FD_ENV, fd, path.c_str());
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        Stavik::Syslog(LOG_WARNING, "Tubix: cannot adopt %s=%d, errno=%d; serving without it", LISTEN_FD_ENV, fd,
                       errno);
        return -1;
    }
    *inode = info.st_ino;
    return fd;
}

} // namespace Tubix
