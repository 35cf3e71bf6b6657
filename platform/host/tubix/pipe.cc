#include "tubix/pipe.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "tubix/epoll_tag.h"
#include "tubix/listener.h"
#include "tubix/runtime_dir.h"

namespace Tubix {
namespace {

// A callback that falls behind stops the reading of its pipe at this depth,
// so the peer's sends meet a full socket (-11) instead of growing our memory.
constexpr size_t MAX_QUEUED_EVENTS = 1024;
constexpr size_t RESUME_QUEUED_EVENTS = MAX_QUEUED_EVENTS / 2;
constexpr size_t SEND_QUEUE_MAX_BYTES = 4 * 1024 * 1024;

} // namespace

Pipe::Pipe(int32_t handle, int fd, int epollFd, std::shared_ptr<PipeSink> sink, std::shared_ptr<Listener> listener)
    : handle_(handle), epollFd_(epollFd), sink_(std::move(sink)), listener_(std::move(listener)), fd_(fd),
      sendQueue_(SendQueueMaxMessages(), SEND_QUEUE_MAX_BYTES)
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
    std::lock_guard<std::mutex> guard(fdMutex_);
    if (fd_ < 0) {
        return peerGone_ ? -EPIPE : -EBADF;
    }
    if (sendQueue_.Empty()) {
        if (sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return 0;
        }
        int err = errno;
        if (err != EAGAIN && err != EWOULDBLOCK) {
            Stavik::Syslog(LOG_ERR, "Tubix: send on fd=%d failed, errno=%d", handle_, err);
            return -err;
        }
    }
    return QueueLocked(header, data, size);
}

int32_t Pipe::QueueLocked(const uint8_t* header, const void* data, uint32_t size)
{
    if (!sendQueue_.Push(header, FRAME_HEADER_SIZE, data, size)) {
        if (!overflowed_) {
            overflowed_ = true;
            Stavik::Syslog(LOG_ERR, "Tubix: send queue of fd=%d is full (%zu messages); sends fail until the peer reads",
                           handle_, sendQueue_.Size());
        }
        return -ENOBUFS;
    }
    UpdateEpollLocked();
    return 0;
}

void Pipe::FlushQueue()
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    while (fd_ >= 0 && !sendQueue_.Empty()) {
        const std::vector<uint8_t>& frame = sendQueue_.Front();
        if (send(fd_, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            int err = errno;
            if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
                break;
            }
            size_t dropped = sendQueue_.Clear();
            overflowed_ = false;
            Stavik::Syslog(LOG_WARNING, "Tubix: send on fd=%d failed, errno=%d; %zu queued messages dropped", handle_,
                           err, dropped);
            break;
        }
        sendQueue_.Pop();
    }
    if (sendQueue_.Empty() && overflowed_) {
        overflowed_ = false;
        Stavik::Syslog(LOG_INFO, "Tubix: send queue of fd=%d has drained", handle_);
    }
    UpdateEpollLocked();
}

bool Pipe::HasQueuedSends()
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    return !sendQueue_.Empty();
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
    std::lock_guard<std::mutex> guard(fdMutex_);
    reading_ = true;
    UpdateEpollLocked();
    return epollEvents_ != 0;
}

void Pipe::SetReading(bool reading)
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    reading_ = reading;
    UpdateEpollLocked();
}

void Pipe::UpdateEpollLocked()
{
    if (fd_ < 0) {
        return;
    }
    uint32_t readEvents = EPOLLIN | EPOLLRDHUP;
    uint32_t writeEvents = EPOLLOUT;
    uint32_t wanted = (reading_ ? readEvents : 0) | (sendQueue_.Empty() ? 0 : writeEvents);
    if (wanted == epollEvents_) {
        return;
    }
    // With nothing wanted the socket leaves the set: epoll would still report
    // its hang-up, and the reading thread would spin on it.
    int operation = epollEvents_ == 0 ? EPOLL_CTL_ADD : (wanted == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD);
    epoll_event event{};
    event.events = wanted;
    event.data.u64 = MakeEpollTag(EpollKind::PIPE, handle_);
    if (epoll_ctl(epollFd_, operation, fd_, &event) != 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: epoll_ctl for fd=%d failed, errno=%d", handle_, errno);
        return;
    }
    epollEvents_ = wanted;
}

void Pipe::CloseSocket(bool peerGone)
{
    std::lock_guard<std::mutex> guard(fdMutex_);
    if (fd_ < 0) {
        return;
    }
    if (epollEvents_ != 0) {
        epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd_, nullptr);
        epollEvents_ = 0;
    }
    size_t dropped = sendQueue_.Clear();
    if (dropped != 0) {
        Stavik::Syslog(LOG_WARNING, "Tubix: fd=%d closed with %zu queued messages dropped", handle_, dropped);
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
        SetReading(false);
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
        SetReading(true);
    }
    return true;
}

bool Pipe::FinishDelivery(bool* closedWhileRunning)
{
    std::lock_guard<std::mutex> guard(mutex_);
    running_ = false;
    *closedWhileRunning = closedWhileRunning_;
    closedWhileRunning_ = false;
    if (closed_ || queue_.empty()) {
        scheduled_ = false;
        return false;
    }
    return true;
}

CloseStart Pipe::BeginClose(bool ownCallbackMayClose)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (closed_) {
        return CloseStart::ALREADY;
    }
    if (running_ && runner_ == std::this_thread::get_id() && !ownCallbackMayClose) {
        return CloseStart::BUSY;
    }
    // A callback running on another thread finishes; nothing is delivered after it.
    closed_ = true;
    queue_.clear();
    if (running_) {
        closedWhileRunning_ = true;
        return CloseStart::DEFERRED;
    }
    return CloseStart::NOW;
}

} // namespace Tubix
