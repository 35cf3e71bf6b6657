// Runs between fork and exec in a child of a multi-threaded process: system
// calls and setenv only, no allocation of its own, no log.
#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "zul.h"

namespace {

const char DEFAULT_RUNTIME_DIR[] = "/run/tubix";
const char LISTEN_FD_ENV[] = "TUBIX_LISTEN_FD";
constexpr mode_t SHARED_DIR_MODE = 01777;
constexpr mode_t SOCKET_MODE = 0666;
constexpr int LISTEN_BACKLOG = 128;

// Not empty, and no ".." component that could leave the runtime directory.
bool IsSafeName(const char* name)
{
    if (name[0] == '\0') {
        return false;
    }
    for (const char* part = name; part != nullptr;) {
        const char* slash = strchr(part, '/');
        size_t length = slash == nullptr ? strlen(part) : static_cast<size_t>(slash - part);
        if (length == 2 && part[0] == '.' && part[1] == '.') {
            return false;
        }
        part = slash == nullptr ? nullptr : slash + 1;
    }
    return true;
}

// "$TUBIX_DIR/<name>" into the address, as the library spells it.
bool FillAddress(const char* name, sockaddr_un* address)
{
    const char* dir = getenv("TUBIX_DIR");
    if (dir == nullptr || dir[0] == '\0') {
        dir = DEFAULT_RUNTIME_DIR;
    }
    size_t dirLength = strlen(dir);
    while (dirLength > 1 && dir[dirLength - 1] == '/') {
        --dirLength;
    }
    size_t nameLength = strlen(name);
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (dirLength + 1 + nameLength >= sizeof(address->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address->sun_path, dir, dirLength);
    address->sun_path[dirLength] = '/';
    memcpy(address->sun_path + dirLength + 1, name, nameLength);
    return true;
}

// The directories above path, shared by the services of every user.
bool MakeParentDirs(char* path)
{
    for (char* slash = strchr(path + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        bool made = mkdir(path, SHARED_DIR_MODE) == 0;
        bool ok = made || errno == EEXIST;
        if (made) {
            chmod(path, SHARED_DIR_MODE);
        }
        *slash = '/';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// A socket file that nobody listens on was left by a dead incarnation.
bool IsStaleSocket(const sockaddr_un& address)
{
    struct stat info;
    if (lstat(address.sun_path, &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return false;
    }
    // Never blocks: a listener that does not accept with a full backlog is alive.
    int probe = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return false;
    }
    bool refused = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
                   errno == ECONNREFUSED;
    close(probe);
    return refused;
}

// Binds with the mode every client needs, so that the file never changes
// again after it appears: an opener tells socket files apart by their change time.
int BindShared(int fd, const sockaddr_un& address)
{
    mode_t previous = umask(static_cast<mode_t>(~SOCKET_MODE) & 0777);
    int rc = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    int err = errno;
    umask(previous);
    errno = err;
    return rc;
}

// The listening socket, without close-on-exec: the program inherits it.
int ListenAt(const sockaddr_un& address)
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        return -1;
    }
    int rc = BindShared(fd, address);
    if (rc != 0 && errno == EADDRINUSE) {
        if (IsStaleSocket(address)) {
            unlink(address.sun_path);
            rc = BindShared(fd, address);
        } else {
            errno = EADDRINUSE;
        }
    }
    if (rc == 0 && listen(fd, LISTEN_BACKLOG) == 0) {
        return fd;
    }
    int err = errno;
    close(fd);
    errno = err;
    return -1;
}

// Decimal text of a descriptor number, into a buffer of at least 12 bytes.
void FormatDescriptor(int fd, char* text)
{
    char digits[12];
    size_t count = 0;
    unsigned value = static_cast<unsigned>(fd);
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (size_t i = 0; i < count; ++i) {
        text[i] = digits[count - 1 - i];
    }
    text[count] = '\0';
}

} // namespace

int32_t ZULInitProc(const AppConfig& config)
{
    const char* name = config.appName.c_str();
    if (!IsSafeName(name)) {
        errno = EINVAL;
        return -1;
    }
    if (setenv("PROC_NAME", name, 1) != 0) {
        return -1;
    }
    sockaddr_un address;
    if (!FillAddress(name, &address) || !MakeParentDirs(address.sun_path)) {
        return -1;
    }
    int fd = ListenAt(address);
    if (fd < 0) {
        return -1;
    }
    char text[12];
    FormatDescriptor(fd, text);
    if (setenv(LISTEN_FD_ENV, text, 1) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return 0;
}
