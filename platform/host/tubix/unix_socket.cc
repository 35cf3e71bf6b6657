#include "tubix/unix_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "core/log.h"
#include "tubix/endpoint_memory.h"
#include "tubix/sleep_util.h"

namespace Tubix {
namespace {

// A service is usually up within a millisecond of its fork: the first retries
// come soon, later ones back off to the longest pause.
constexpr uint64_t CONNECT_RETRY_FIRST_US = 100;
constexpr uint64_t CONNECT_RETRY_LAST_US = 10000;
constexpr std::chrono::milliseconds NEWCOMER_GRACE{10};
constexpr int LISTEN_BACKLOG = 128;

bool FillAddress(const std::string& path, sockaddr_un* address)
{
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        Stavik::Syslog(LOG_ERR, "Tubix: socket path %s is longer than %zu bytes", path.c_str(),
                       sizeof(address->sun_path) - 1);
        return false;
    }
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

int NewSocket()
{
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: socket failed, errno=%d", errno);
    }
    return fd;
}

// 0 or the errno of one connect attempt.
int TryConnect(const sockaddr_un& address, int* fdOut)
{
    int fd = NewSocket();
    if (fd < 0) {
        return errno;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        *fdOut = fd;
        return 0;
    }
    int err = errno;
    close(fd);
    return err;
}

bool IsNotUpYet(int err)
{
    return err == ENOENT || err == ECONNREFUSED || err == EAGAIN;
}

// A socket file that nobody listens on is left by a dead process.
bool IsStaleSocket(const std::string& path, const sockaddr_un& address)
{
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return false;
    }
    int fd = -1;
    int err = TryConnect(address, &fd);
    if (err == 0) {
        close(fd);
    }
    return err == ECONNREFUSED;
}

int BindAndListen(int fd, const std::string& path, const sockaddr_un& address)
{
    int rc = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    if (rc != 0 && errno == EADDRINUSE && IsStaleSocket(path, address)) {
        unlink(path.c_str());
        rc = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    if (rc != 0) {
        int err = errno;
        Stavik::Syslog(LOG_ERR, "Tubix: cannot serve at %s, errno=%d", path.c_str(), err);
        return -err;
    }
    // Clients of every user may connect; the directory decides who can see it.
    if (chmod(path.c_str(), 0666) != 0) {
        Stavik::Syslog(LOG_WARNING, "Tubix: chmod %s failed, errno=%d", path.c_str(), errno);
    }
    if (listen(fd, LISTEN_BACKLOG) != 0) {
        int err = errno;
        Stavik::Syslog(LOG_ERR, "Tubix: listen at %s failed, errno=%d", path.c_str(), err);
        unlink(path.c_str());
        return -err;
    }
    return 0;
}

} // namespace

namespace {

// Tells, from what the socket file looked like at each refused connect, when
// nothing is left to wait for. A refusing file seen before (remembered from
// an earlier open, or at the first look) is the stale endpoint of a dead
// incarnation that the next one is about to replace. A new file refusing may
// be between its bind and its listen; still refusing a while later, it
// belongs to an incarnation that has come and gone.
class RefusalJudge {
public:
    explicit RefusalJudge(const std::string& path) : knowsStale_(EndpointMemory::Instance().Recall(path, &stale_)) {}

    bool Gone(const EndpointFile& seen)
    {
        auto now = std::chrono::steady_clock::now();
        if (!knowsStale_) {
            stale_ = seen;
            knowsStale_ = true;
        } else if (seen == stale_) {
            return false;
        } else if (newcomerRefused_ && seen == newcomer_) {
            return now - newcomerSince_ >= NEWCOMER_GRACE;
        } else {
            newcomer_ = seen;
            newcomerRefused_ = true;
            newcomerSince_ = now;
        }
        return false;
    }

private:
    EndpointFile stale_;
    bool knowsStale_;
    EndpointFile newcomer_;
    bool newcomerRefused_ = false;
    std::chrono::steady_clock::time_point newcomerSince_;
};

} // namespace

int ConnectService(const std::string& path, int32_t timeoutMs, bool retry)
{
    sockaddr_un address;
    if (!FillAddress(path, &address)) {
        return -ENAMETOOLONG;
    }
    RefusalJudge judge(path);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    uint64_t pauseUs = CONNECT_RETRY_FIRST_US;
    while (true) {
        int fd = -1;
        int err = TryConnect(address, &fd);
        EndpointFile seen;
        bool exists = EndpointMemory::Look(path, &seen);
        if (exists) {
            EndpointMemory::Instance().Remember(path, seen);
        }
        if (err == 0) {
            return fd;
        }
        if (!IsNotUpYet(err)) {
            Stavik::Syslog(LOG_ERR, "Tubix: connect to %s failed, errno=%d", path.c_str(), err);
            return -err;
        }
        if (err == ECONNREFUSED && exists && judge.Gone(seen)) {
            Stavik::Syslog(LOG_ERR, "Tubix: %s was served since it was last seen, and nobody serves it now",
                           path.c_str());
            return -ECONNREFUSED;
        }
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (!retry || left.count() <= 0) {
            return -EAGAIN;
        }
        SleepUs(std::min<uint64_t>(static_cast<uint64_t>(left.count()), pauseUs));
        pauseUs = std::min(pauseUs * 2, CONNECT_RETRY_LAST_US);
    }
}

int ListenService(const std::string& path, ino_t* inode)
{
    sockaddr_un address;
    if (!FillAddress(path, &address)) {
        return -ENAMETOOLONG;
    }
    int fd = NewSocket();
    if (fd < 0) {
        return -errno;
    }
    int rc = BindAndListen(fd, path, address);
    struct stat info;
    if (rc == 0 && lstat(path.c_str(), &info) != 0) {
        rc = -errno;
        Stavik::Syslog(LOG_ERR, "Tubix: socket %s vanished, errno=%d", path.c_str(), -rc);
    }
    if (rc != 0) {
        close(fd);
        return rc;
    }
    *inode = info.st_ino;
    return fd;
}

int CheckServicePeer(int fd, const std::string& path, uint32_t gid)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        int err = errno;
        Stavik::Syslog(LOG_ERR, "Tubix: open %s: cannot read the service's credentials, errno=%d", path.c_str(), err);
        return -err;
    }
    if (peer.uid != 0 && peer.gid != gid) {
        Stavik::Syslog(LOG_ERR, "Tubix: open %s refused: the process serving it (pid %d) has gid %u, the service has gid %u",
                       path.c_str(), static_cast<int>(peer.pid), static_cast<unsigned>(peer.gid), gid);
        return -EACCES;
    }
    return 0;
}

void UnlinkOwnSocket(const std::string& path, ino_t inode)
{
    struct stat info;
    if (lstat(path.c_str(), &info) == 0 && info.st_ino == inode) {
        unlink(path.c_str());
    }
}

} // namespace Tubix
