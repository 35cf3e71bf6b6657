#include "tubix/pipe.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "tubix/epoll_tag.h"
#include "tubix/listener.h"

namespace Tubix {
namespace {

// A callback that falls behind stops the reading of its pipe at this depth,
// so the peer's sends meet a full socket (-11) instead of growing our memory.
constexpr size_t MAX_QUEUED_EVENTS = 1024;
constexpr size_t RESUME_QUEUED_EVENTS = MAX_QUEUED_EVENTS / 2;

} // namespace

Pipe::Pipe(int32_t handle, int fd, int epollFd, std::shared_ptr<PipeSink> sink, std::shared_ptr<Listener> listener)
    : handle_(handle), epollFd_(epollFd), sink_(std::move(sink)), listener_(std::move(listener)), fd_(fd)
{
}

Pipe::~Pipe()
{
    CloseSocket(false);
}

int32_t Pipe::SendFrame(FrameKind kind, uint32_t id, const void* data, uint32_t size)
{
    if (size > FRAME_MAX_PAYLOAD) {
        Stavik::Syslog(LOG_ERR, "Tubix: send on fd=%d refused: %u bytes is above %u", handle_, size, FRAME_MAX_PAYLOAD);
        return -EMSGSIZE;
    }
    if (size > 0 && data == nullptr) {
        Stavik::Syslog(LOG_ERR, "Tubix: send on fd=%d refused: no data for %u bytes", handle_, size);
        return -EINVAL;
    }
    uint8_t header[FRAME_HEADER_SIZE];
    EncodeFrameHeader(kind, id, size, header);
    iovec parts[2] = {{header, sizeof(header)}, {const_cast<void*>(data), size}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = size > 0 ? 2 : 1;
    int err = 0;
    {
        std::lock_guard<std::mutex> guard(fdMutex_);
        if (fd_ < 0) {
            return peerGone_ ? -EPIPE : -EBADF;
        }
        if (sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return 0;
        }
        err = errno;
    }
    if (err == EAGAIN || err == EWOULDBLOCK) {
        return -EAGAIN;
    }
    Stavik::Syslog(LOG_ERR, "Tubix: send on fd=%d failed, errno=%d", handle_, err);
    return -err;
}

ReceiveStatus Pipe::Receive(std::vector<uint8_t>* buffer, size_t* packetSize)
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    if (fd_ < 0) {
        return ReceiveStatus::NOTHING;
    }
    iovec part = {buffer->data(), buffer->size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    // MSG_TRUNC makes an oversized packet report its real length.
    ssize_t received = recvmsg(fd_, &message, MSG_DONTWAIT | MSG_TRUNC);
    if (received > 0) {
        *packetSize = static_cast<size_t>(received);
        return ReceiveStatus::PACKET;
    }
    if (received == 0) {
        // Zero is both the end and an empty packet; only the peer's shutdown tells.
        *packetSize = 0;
        return PeerShutDown() ? ReceiveStatus::HANGUP : ReceiveStatus::PACKET;
    }
    int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
        return ReceiveStatus::NOTHING;
    }
    if (err != ECONNRESET) {
        Stavik::Syslog(LOG_WARNING, "Tubix: receive on fd=%d failed, errno=%d", handle_, err);
    }
    return ReceiveStatus::HANGUP;
}

bool Pipe::PeerShutDown() const
{
    pollfd probe = {fd_, POLLRDHUP, 0};
    return poll(&probe, 1, 0) > 0 && (probe.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

bool Pipe::Watch()
{
    std::lock_guard<std::mutex> guard(mutex_);
    SetWatched(true);
    std::lock_guard<std::mutex> fdGuard(fdMutex_);
    return watched_;
}

void Pipe::SetWatched(bool watched)
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    if (fd_ < 0 || watched_ == watched) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.u64 = MakeEpollTag(EpollKind::PIPE, handle_);
    if (epoll_ctl(epollFd_, watched ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, fd_, &event) != 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: epoll_ctl for fd=%d failed, errno=%d", handle_, errno);
        return;
    }
    watched_ = watched;
}

void Pipe::CloseSocket(bool peerGone)
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    if (fd_ < 0) {
        return;
    }
    if (watched_) {
        epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd_, nullptr);
        watched_ = false;
    }
    close(fd_);
    fd_ = -1;
    peerGone_ = peerGone;
    if (listener_ != nullptr) {
        listener_->DropConnection();
    }
}

uint32_t Pipe::NextRequestId()
{
    uint32_t id = ++nextId_;
    // 0 is the id of the hello.
    return id != 0 ? id : ++nextId_;
}

bool Pipe::Push(PipeEvent event)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (closed_) {
        return false;
    }
    queue_.push_back(std::move(event));
    if (queue_.size() >= MAX_QUEUED_EVENTS && !paused_) {
        paused_ = true;
        SetWatched(false);
    }
    if (scheduled_) {
        return false;
    }
    scheduled_ = true;
    return true;
}

bool Pipe::IsPaused()
{
    std::lock_guard<std::mutex> guard(mutex_);
    return paused_;
}

bool Pipe::TakeNext(PipeEvent* event)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (closed_ || queue_.empty()) {
        scheduled_ = false;
        return false;
    }
    *event = std::move(queue_.front());
    queue_.pop_front();
    running_ = true;
    runner_ = std::this_thread::get_id();
    if (paused_ && queue_.size() <= RESUME_QUEUED_EVENTS) {
        paused_ = false;
        SetWatched(true);
    }
    return true;
}

bool Pipe::FinishDelivery(bool* closedByCallback)
{
    std::lock_guard<std::mutex> guard(mutex_);
    running_ = false;
    *closedByCallback = deferredClose_;
    deferredClose_ = false;
    if (closed_ || queue_.empty()) {
        scheduled_ = false;
        return false;
    }
    return true;
}

CloseStart Pipe::BeginClose()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (closed_) {
        return CloseStart::ALREADY;
    }
    if (running_ && runner_ != std::this_thread::get_id()) {
        return CloseStart::BUSY;
    }
    closed_ = true;
    queue_.clear();
    if (running_) {
        deferredClose_ = true;
        return CloseStart::DEFERRED;
    }
    return CloseStart::NOW;
}

} // namespace Tubix
