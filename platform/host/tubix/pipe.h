#ifndef STAVIK_PLATFORM_HOST_TUBIX_PIPE_H
#define STAVIK_PLATFORM_HOST_TUBIX_PIPE_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tubix/call_table.h"
#include "tubix/frame.h"
#include "tubix/pipe_sink.h"
#include "tubix/send_queue.h"

namespace Tubix {

class Listener;

struct PipeEvent {
    enum class Kind { HELLO, REQUEST, BROKEN };
    Kind kind;
    uint32_t id;
    std::vector<uint8_t> payload;
};

enum class ReceiveStatus { PACKET, NOTHING, HANGUP };
enum class CloseStart { NOW, DEFERRED, BUSY, ALREADY };

// One connection: its socket, the ordered queue of what waits for delivery,
// and the callers that wait for responses. Descriptors handed out are pipe
// handles, never reused, so that a stale one can't reach a newer pipe.
class Pipe {
public:
    // A server-side pipe names the listener that accepted it.
    Pipe(int32_t handle, int fd, int epollFd, std::shared_ptr<PipeSink> sink, std::shared_ptr<Listener> listener);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int32_t Handle() const { return handle_; }
    bool IsServerSide() const { return listener_ != nullptr; }
    const Listener* Owner() const { return listener_.get(); }
    PipeSink& Sink() const { return *sink_; }
    CallTable& Calls() { return calls_; }

    // Socket, from any thread. A send never blocks: a frame that does not fit
    // the socket waits in the pipe's send queue, behind which every later
    // frame waits too; a full queue answers -105 at once.
    int32_t SendFrame(FrameKind kind, uint32_t id, const void* data, uint32_t size);
    // Reading thread, when the socket has room: sends what the queue holds.
    void FlushQueue();
    bool HasQueuedSends();
    ReceiveStatus Receive(std::vector<uint8_t>* buffer, size_t* packetSize);
    bool Watch();
    // Closes the socket and drops what its send queue still holds.
    void CloseSocket(bool peerGone);
    uint32_t NextRequestId();

    // Reading thread only.
    bool HelloSeen() const { return helloSeen_; }
    void MarkHello() { helloSeen_ = true; }

    // Delivery. Push answers whether the pipe must be scheduled; a pipe is
    // scheduled at most once, which keeps its callbacks one at a time and in order.
    bool Push(PipeEvent event);
    bool IsPaused();
    bool TakeNext(PipeEvent* event);
    // After a callback: whether more waits, and whether the pipe was closed while it ran.
    bool FinishDelivery(bool* closedWhileRunning);
    // A close from inside the pipe's own callback is BUSY unless ownCallbackMayClose.
    CloseStart BeginClose(bool ownCallbackMayClose);

private:
    void SetReading(bool reading);
    // The events epoll watches follow what the pipe wants: input while it
    // reads, room to write while its send queue holds frames.
    void UpdateEpollLocked();
    int32_t QueueLocked(const uint8_t* header, const void* data, uint32_t size);
    bool PeerShutDown() const;

    const int32_t handle_;
    const int epollFd_;
    const std::shared_ptr<PipeSink> sink_;
    const std::shared_ptr<Listener> listener_;
    std::atomic<uint32_t> nextId_{0};
    bool helloSeen_ = false;
    CallTable calls_;

    // Guards the socket against being closed under a send or a receive, and
    // the send queue, so that frames leave in the order they were sent.
    std::mutex fdMutex_;
    int fd_;
    bool peerGone_ = false;
    bool reading_ = false;
    uint32_t epollEvents_ = 0; // 0: not in the epoll set
    SendQueue sendQueue_;
    bool overflowed_ = false;

    // Guards delivery; taken before fdMutex_ when both are needed.
    std::mutex mutex_;
    std::deque<PipeEvent> queue_;
    bool scheduled_ = false;
    bool running_ = false;
    std::thread::id runner_;
    bool closed_ = false;
    bool closedWhileRunning_ = false;
    bool paused_ = false;
};

} // namespace Tubix

#endif
