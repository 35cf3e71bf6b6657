#include "tubix/io_loop.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "core/log.h"
#include "tubix/epoll_tag.h"

namespace Tubix {
namespace {

constexpr int MAX_EVENTS = 64;
// Packets read from one pipe per turn, so that a flooding peer can't starve the others.
constexpr int READ_BURST = 64;
constexpr int ACCEPT_BURST = 16;

} // namespace

bool IoLoop::Start(ThreadGroup& threads)
{
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epollFd_ < 0 || wakeFd_ < 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: cannot create the reading loop, errno=%d", errno);
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = MakeEpollTag(EpollKind::WAKE, 0);
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event) != 0) {
        Stavik::Syslog(LOG_ERR, "Tubix: cannot watch the wake-up event, errno=%d", errno);
        return false;
    }
    buffer_.resize(FRAME_HEADER_SIZE + FRAME_MAX_PAYLOAD);
    return threads.Spawn("reading", [this] { Run(); });
}

void IoLoop::Stop()
{
    stopping_ = true;
    uint64_t one = 1;
    ssize_t ignored = write(wakeFd_, &one, sizeof(one));
    (void)ignored;
}

void IoLoop::Run()
{
    epoll_event events[MAX_EVENTS];
    while (!stopping_) {
        int count = epoll_wait(epollFd_, events, MAX_EVENTS, -1);
        if (count < 0 && errno != EINTR) {
            Stavik::Syslog(LOG_ERR, "Tubix: epoll_wait failed, errno=%d; the reading thread ends", errno);
            return;
        }
        for (int i = 0; i < count && !stopping_; ++i) {
            Wake(events[i]);
        }
    }
}

void IoLoop::Wake(const epoll_event& event)
{
    uint64_t tag = event.data.u64;
    switch (EpollTagKind(tag)) {
        case EpollKind::LISTENER:
            AcceptClients(EpollTagId(tag));
            break;
        case EpollKind::PIPE:
            // A hang-up or an error fails the queued sends, and ends the reading.
            if ((event.events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) {
                FlushPipe(EpollTagId(tag));
            }
            if ((event.events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
                ReadPipe(EpollTagId(tag));
            }
            break;
        case EpollKind::WAKE: {
            uint64_t count = 0;
            ssize_t ignored = read(wakeFd_, &count, sizeof(count));
            (void)ignored;
            break;
        }
    }
}

void IoLoop::AcceptClients(int32_t listenerId)
{
    std::shared_ptr<Listener> listener = table_.FindListener(listenerId);
    for (int i = 0; listener != nullptr && i < ACCEPT_BURST; ++i) {
        int fd = listener->Accept();
        if (fd < 0) {
            return;
        }
        Adopt(listener, fd);
    }
}

void IoLoop::Adopt(const std::shared_ptr<Listener>& listener, int fd)
{
    std::shared_ptr<Pipe> pipe = table_.AddPipe([&](int32_t handle) {
        return std::make_shared<Pipe>(handle, fd, epollFd_, listener->Sink(), listener);
    });
    if (!pipe->Watch()) {
        pipe->BeginClose(true);
        table_.ErasePipe(pipe->Handle());
    }
}

void IoLoop::FlushPipe(int32_t fd)
{
    std::shared_ptr<Pipe> pipe = table_.FindPipe(fd);
    if (pipe != nullptr) {
        pipe->FlushQueue();
    }
}

void IoLoop::ReadPipe(int32_t fd)
{
    std::shared_ptr<Pipe> pipe = table_.FindPipe(fd);
    for (int i = 0; pipe != nullptr && i < READ_BURST && !pipe->IsPaused(); ++i) {
        size_t packetSize = 0;
        switch (pipe->Receive(&buffer_, &packetSize)) {
            case ReceiveStatus::PACKET:
                HandlePacket(pipe, packetSize);
                break;
            case ReceiveStatus::NOTHING:
                return;
            case ReceiveStatus::HANGUP:
                HandleHangup(pipe);
                return;
        }
    }
}

void IoLoop::HandlePacket(const std::shared_ptr<Pipe>& pipe, size_t packetSize)
{
    FrameHeader header;
    if (!DecodeFrame(pipe->Handle(), buffer_.data(), packetSize, &header)) {
        return;
    }
    const uint8_t* payload = buffer_.data() + FRAME_HEADER_SIZE;
    switch (static_cast<FrameKind>(header.kind)) {
        case FrameKind::HELLO:
            HandleHello(pipe, payload, header.length);
            break;
        case FrameKind::REQUEST:
            HandleRequest(pipe, header.id, payload, header.length);
            break;
        case FrameKind::RESPONSE:
            HandleResponse(pipe, header.id, payload, header.length);
            break;
    }
}

void IoLoop::HandleHello(const std::shared_ptr<Pipe>& pipe, const uint8_t* payload, uint32_t length)
{
    if (!pipe->IsServerSide() || pipe->HelloSeen()) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: unexpected hello", pipe->Handle());
        return;
    }
    pipe->MarkHello();
    Deliver(pipe, PipeEvent{PipeEvent::Kind::HELLO, 0, std::vector<uint8_t>(payload, payload + length)});
}

void IoLoop::HandleRequest(const std::shared_ptr<Pipe>& pipe, uint32_t id, const uint8_t* payload, uint32_t length)
{
    if (pipe->IsServerSide() && !pipe->HelloSeen()) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: request before the hello", pipe->Handle());
        return;
    }
    Deliver(pipe, PipeEvent{PipeEvent::Kind::REQUEST, id, std::vector<uint8_t>(payload, payload + length)});
}

void IoLoop::HandleResponse(const std::shared_ptr<Pipe>& pipe, uint32_t id, const uint8_t* payload, uint32_t length)
{
    if (!pipe->Calls().Answer(id, payload, length)) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: nobody waits for the response id=%u", pipe->Handle(),
                       id);
    }
}

void IoLoop::HandleHangup(const std::shared_ptr<Pipe>& pipe)
{
    pipe->CloseSocket(true);
    pipe->Calls().FailAll(-EPIPE);
    if (pipe->IsServerSide() && !pipe->HelloSeen()) {
        // Nobody was told of this client, so nobody is told it has gone.
        pipe->BeginClose(true);
        table_.ErasePipe(pipe->Handle());
        return;
    }
    Deliver(pipe, PipeEvent{PipeEvent::Kind::BROKEN, 0, {}});
}

void IoLoop::Deliver(const std::shared_ptr<Pipe>& pipe, PipeEvent event)
{
    if (pipe->Push(std::move(event))) {
        dispatcher_.Schedule(pipe);
    }
}

} // namespace Tubix
