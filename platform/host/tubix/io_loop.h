#ifndef STAVIK_PLATFORM_HOST_TUBIX_IO_LOOP_H
#define STAVIK_PLATFORM_HOST_TUBIX_IO_LOOP_H

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "tubix/dispatcher.h"
#include "tubix/pipe_table.h"
#include "tubix/thread_group.h"

namespace Tubix {

// The one reading thread: accepts clients, reads every packet of every pipe,
// checks its frame, hands responses to their waiting callers and queues
// everything else for delivery; and flushes the send queue of a pipe whose
// socket has room again. It never runs a callback, so a slow callback can't
// stop responses or other pipes.
class IoLoop {
public:
    IoLoop(PipeTable& table, Dispatcher& dispatcher) : table_(table), dispatcher_(dispatcher) {}
    bool Start(ThreadGroup& threads);
    int EpollFd() const { return epollFd_; }
    void Stop();

private:
    void Run();
    void Wake(const struct epoll_event& event);
    void FlushPipe(int32_t fd);
    void AcceptClients(int32_t listenerId);
    void Adopt(const std::shared_ptr<Listener>& listener, int fd);
    void ReadPipe(int32_t fd);
    void HandlePacket(const std::shared_ptr<Pipe>& pipe, size_t packetSize);
    void HandleHello(const std::shared_ptr<Pipe>& pipe, const uint8_t* payload, uint32_t length);
    void HandleRequest(const std::shared_ptr<Pipe>& pipe, uint32_t id, const uint8_t* payload, uint32_t length);
    void HandleResponse(const std::shared_ptr<Pipe>& pipe, uint32_t id, const uint8_t* payload, uint32_t length);
    void HandleHangup(const std::shared_ptr<Pipe>& pipe);
    void Deliver(const std::shared_ptr<Pipe>& pipe, PipeEvent event);

    PipeTable& table_;
    Dispatcher& dispatcher_;
    int epollFd_ = -1;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::vector<uint8_t> buffer_;
};

} // namespace Tubix

#endif
