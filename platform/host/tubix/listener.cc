#include "tubix/listener.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "tubix/epoll_tag.h"
#include "tubix/sleep_util.h"
#include "tubix/unix_socket.h"

namespace Tubix {
namespace {

// Out of descriptors the listener stays readable; a short pause keeps the
// reading thread from spinning on it.
constexpr uint32_t ACCEPT_BACKOFF_MS = 10;

bool IsTransientAcceptError(int err)
{
    return err == EAGAIN || err == EWOULDBLOCK || err == EINTR || err == ECONNABORTED;
}

} // namespace

Listener::Listener(int32_t id, int fd, std::string path, ino_t inode, std::shared_ptr<PipeSink> sink,
                   uint32_t maxConnections, int epollFd)
    : id_(id), path_(std::move(path)), inode_(inode), sink_(std::move(sink)), maxConnections_(maxConnections),
      epollFd_(epollFd), fd_(fd)
{
}

Listener::~Listener()
{
    Close();
}

bool Listener::Watch()
{
    std::lock_guard<std::mutex> guard(mutex_);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = MakeEpollTag(EpollKind::LISTENER, id_);
    if (fd_ < 0 || epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd_, &event) != 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: cannot watch server %s, errno=%d", path_.c_str(), errno);
        return false;
    }
    return true;
}

int Listener::Accept()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (fd_ < 0) {
        return -1;
    }
    int fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        if (!IsTransientAcceptError(err)) {
            if (err != lastAcceptError_) {
                Stavik::Syslog(LOG_ERR, "Tubix: accept at %s failed, errno=%d", path_.c_str(), err);
            }
            SleepMs(ACCEPT_BACKOFF_MS);
        }
        lastAcceptError_ = err;
        return -1;
    }
    lastAcceptError_ = 0;
    if (maxConnections_ != 0 && connections_ >= maxConnections_) {
        Stavik::Syslog(LOG_WARNING, "Tubix: server %s refuses a client: %u clients already", path_.c_str(),
                       connections_);
        close(fd);
        return -1;
    }
    ++connections_;
    return fd;
}

void Listener::DropConnection()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (connections_ > 0) {
        --connections_;
    }
}

void Listener::Close()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (fd_ < 0) {
        return;
    }
    epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd_, nullptr);
    close(fd_);
    fd_ = -1;
    UnlinkOwnSocket(path_, inode_);
}

} // namespace Tubix
