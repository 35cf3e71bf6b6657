#include "tubix/engine.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "core/log.h"
#include "tubix/runtime_dir.h"
#include "tubix/sleep_util.h"
#include "tubix/unix_socket.h"

namespace Tubix {
namespace {

// Enough for callbacks of different pipes to overlap when one blocks, few
// enough that hundreds of pipes cost no more threads than one.
constexpr size_t DELIVERY_THREADS = 4;
constexpr std::chrono::milliseconds EXIT_WAIT{500};
// What a process sent just before its end still reaches a peer that reads.
constexpr std::chrono::milliseconds SEND_DRAIN_WAIT{1000};
constexpr uint32_t SEND_DRAIN_POLL_MS = 2;

const char* EventName(PipeEvent::Kind kind)
{
    switch (kind) {
        case PipeEvent::Kind::HELLO:
            return "connection";
        case PipeEvent::Kind::REQUEST:
            return "request";
        case PipeEvent::Kind::BROKEN:
            return "disconnect";
    }
    return "unknown";
}

// A callback that throws must not end the delivery thread, nor the process.
template <typename Callback>
void Guarded(int32_t fd, const char* what, Callback callback)
{
    try {
        callback();
    } catch (const std::exception& error) {
        Stavik::Syslog(LOG_ERR, "Tubix: %s callback of fd=%d threw: %s", what, fd, error.what());
    } catch (...) {
        Stavik::Syslog(LOG_ERR, "Tubix: %s callback of fd=%d threw", what, fd);
    }
}

void RunCallback(const std::shared_ptr<Pipe>& pipe, const PipeEvent& event)
{
    int32_t fd = pipe->Handle();
    Guarded(fd, EventName(event.kind), [&] {
        if (event.kind == PipeEvent::Kind::HELLO) {
            pipe->Sink().OnHello(fd, std::string(event.payload.begin(), event.payload.end()));
        } else if (event.kind == PipeEvent::Kind::REQUEST) {
            TubixRequest req{event.id, event.payload.data(), static_cast<uint32_t>(event.payload.size())};
            pipe->Sink().OnRequest(fd, &req);
        } else {
            pipe->Sink().OnRequest(fd, nullptr);
        }
    });
}

} // namespace

Engine& Engine::Instance()
{
    static Engine* engine = new Engine();
    return *engine;
}

Engine::Engine()
    : ownerPid_(getpid()), dispatcher_([this](const std::shared_ptr<Pipe>& pipe) { return DeliverOne(pipe); }),
      loop_(table_, dispatcher_)
{
    atexit([] { Instance().Shutdown(); });
}

int32_t Engine::EnsureStarted()
{
    std::lock_guard<std::mutex> guard(startMutex_);
    if (stopped_) {
        return -ESHUTDOWN;
    }
    if (started_) {
        return 0;
    }
    if (!loop_.Start(threads_) || dispatcher_.Start(threads_, DELIVERY_THREADS) == 0) {
        stopped_ = true;
        return -EAGAIN;
    }
    started_ = true;
    return 0;
}

int32_t Engine::Connect(const std::string& path, int32_t timeoutMs, bool retry, uint32_t gid,
                        const std::string& helloName, std::shared_ptr<PipeSink> sink)
{
    int32_t rc = EnsureStarted();
    if (rc != 0) {
        return rc;
    }
    int socketFd = ConnectService(path, timeoutMs, retry);
    if (socketFd < 0) {
        return socketFd;
    }
    rc = CheckServicePeer(socketFd, path, gid);
    if (rc != 0) {
        close(socketFd);
        return rc;
    }
    std::shared_ptr<Pipe> pipe = table_.AddPipe([&](int32_t fd) {
        return std::make_shared<Pipe>(fd, socketFd, loop_.EpollFd(), std::move(sink), nullptr);
    });
    rc = pipe->SendFrame(FrameKind::HELLO, 0, helloName.data(), static_cast<uint32_t>(helloName.size()));
    if (rc == 0 && !pipe->Watch()) {
        rc = -EIO;
    }
    if (rc != 0) {
        pipe->BeginClose(true);
        table_.ErasePipe(pipe->Handle());
        return rc;
    }
    return pipe->Handle();
}

int32_t Engine::Listen(const std::string& path, uint32_t maxConnections, std::shared_ptr<PipeSink> sink,
                       bool adoptInherited)
{
    int32_t rc = EnsureStarted();
    if (rc != 0) {
        return rc;
    }
    if (!MakeParentDirs(path)) {
        return -EACCES;
    }
    ino_t inode = 0;
    int socketFd = adoptInherited ? AdoptInheritedListener(path, &inode) : -1;
    if (socketFd < 0) {
        socketFd = ListenService(path, &inode);
    }
    if (socketFd < 0) {
        return socketFd;
    }
    std::shared_ptr<Listener> listener = table_.AddListener([&](int32_t id) {
        return std::make_shared<Listener>(id, socketFd, path, inode, std::move(sink), maxConnections,
                                          loop_.EpollFd());
    });
    if (!listener->Watch()) {
        table_.TakeListener(listener->Id());
        return -EIO;
    }
    return listener->Id();
}

std::vector<int32_t> Engine::StopListening(int32_t listenerId)
{
    std::shared_ptr<Listener> listener = table_.TakeListener(listenerId);
    if (listener == nullptr) {
        return {};
    }
    listener->Close();
    return table_.PipesOf(listener.get());
}

std::shared_ptr<Pipe> Engine::FindOpen(int32_t fd, const char* operation) const
{
    std::shared_ptr<Pipe> pipe = table_.FindPipe(fd);
    if (pipe == nullptr) {
        Stavik::Syslog(LOG_ERR, "Tubix: %s on fd=%d: no such pipe", operation, fd);
    }
    return pipe;
}

int32_t Engine::Send(int32_t fd, FrameKind kind, uint32_t id, const void* data, uint32_t size)
{
    std::shared_ptr<Pipe> pipe = FindOpen(fd, "send");
    if (pipe == nullptr) {
        return -EBADF;
    }
    if (kind == FrameKind::REQUEST) {
        id = pipe->NextRequestId();
    }
    return pipe->SendFrame(kind, id, data, size);
}

int32_t Engine::Call(int32_t fd, const void* data, uint32_t size, int64_t timeoutMs, uint32_t* id,
                     std::vector<uint8_t>* reply)
{
    std::shared_ptr<Pipe> pipe = FindOpen(fd, "rpc");
    if (pipe == nullptr) {
        return -EBADF;
    }
    *id = pipe->NextRequestId();
    int32_t rc = 0;
    if (!pipe->Calls().Expect(*id, &rc)) {
        return rc;
    }
    rc = pipe->SendFrame(FrameKind::REQUEST, *id, data, size);
    if (rc != 0) {
        pipe->Calls().Forget(*id);
        return rc;
    }
    rc = pipe->Calls().Await(*id, timeoutMs, reply);
    if (rc == -ETIMEDOUT) {
        Stavik::Syslog(LOG_WARNING, "Tubix: rpc on fd=%d id=%u got no response in %lld ms", fd, *id,
                       static_cast<long long>(timeoutMs));
    }
    return rc;
}

int32_t Engine::Close(int32_t fd)
{
    std::shared_ptr<Pipe> pipe = FindOpen(fd, "close");
    return pipe == nullptr ? -EBADF : ClosePipe(pipe, false);
}

int32_t Engine::CloseFromCallback(int32_t fd)
{
    std::shared_ptr<Pipe> pipe = FindOpen(fd, "close");
    return pipe == nullptr ? -EBADF : ClosePipe(pipe, true);
}

int32_t Engine::ClosePipe(const std::shared_ptr<Pipe>& pipe, bool ownCallbackMayClose)
{
    CloseStart start = pipe->BeginClose(ownCallbackMayClose);
    if (start == CloseStart::BUSY) {
        return -EBUSY;
    }
    if (start == CloseStart::ALREADY) {
        return -EBADF;
    }
    int32_t fd = pipe->Handle();
    table_.ErasePipe(fd);
    pipe->CloseSocket(false);
    pipe->Calls().FailAll(-ECANCELED);
    if (start == CloseStart::NOW) {
        Guarded(fd, "close", [&] { pipe->Sink().OnClosed(fd); });
    }
    return 0;
}

bool Engine::DeliverOne(const std::shared_ptr<Pipe>& pipe)
{
    PipeEvent event;
    if (!pipe->TakeNext(&event)) {
        return false;
    }
    RunCallback(pipe, event);
    if (event.kind == PipeEvent::Kind::BROKEN && pipe->IsServerSide()) {
        // Nothing can reach a client that has gone, so its connection is
        // released here; a close by the callback itself was refused.
        ClosePipe(pipe, true);
    }
    bool closedWhileRunning = false;
    bool more = pipe->FinishDelivery(&closedWhileRunning);
    if (closedWhileRunning) {
        Guarded(pipe->Handle(), "close", [&] { pipe->Sink().OnClosed(pipe->Handle()); });
    }
    return more;
}

void Engine::Shutdown()
{
    // A forked child inherits the hook but none of the threads.
    if (getpid() != ownerPid_) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(startMutex_);
        stopped_ = true;
        if (!started_) {
            return;
        }
    }
    auto deadline = std::chrono::steady_clock::now() + SEND_DRAIN_WAIT;
    while (table_.AnyQueuedSends() && std::chrono::steady_clock::now() < deadline) {
        SleepMs(SEND_DRAIN_POLL_MS);
    }
    loop_.Stop();
    dispatcher_.Stop();
    if (!threads_.WaitAllExited(EXIT_WAIT)) {
        Stavik::Syslog(LOG_WARNING, "Tubix: a callback still runs at exit");
    }
}

} // namespace Tubix
