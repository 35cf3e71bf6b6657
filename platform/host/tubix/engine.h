#ifndef STAVIK_PLATFORM_HOST_TUBIX_ENGINE_H
#define STAVIK_PLATFORM_HOST_TUBIX_ENGINE_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tubix/dispatcher.h"
#include "tubix/io_loop.h"
#include "tubix/pipe_table.h"
#include "tubix/thread_group.h"

namespace Tubix {

// The process-wide messaging machinery behind the Tubix and ZUL calls. It is
// built on first use and never destroyed: its threads may outlive main, and an
// exit hook stops them. A child forked from a process that used it must exec
// before using it.
class Engine {
public:
    static Engine& Instance();

    // A pipe to the service at path, announced as helloName; the descriptor or
    // a negative code. A service that is neither root nor of group gid is refused.
    int32_t Connect(const std::string& path, int32_t timeoutMs, bool retry, uint32_t gid,
                    const std::string& helloName, std::shared_ptr<PipeSink> sink);
    // Serves at path, if adoptInherited on the endpoint made for this process
    // before exec when there is one; the listener's number or a negative code.
    // 0 connections: no limit.
    int32_t Listen(const std::string& path, uint32_t maxConnections, std::shared_ptr<PipeSink> sink,
                   bool adoptInherited);
    // Stops the listener; the descriptors of its connections, which stay open.
    std::vector<int32_t> StopListening(int32_t listenerId);

    int32_t Send(int32_t fd, FrameKind kind, uint32_t id, const void* data, uint32_t size);
    // Sends a request and waits for its response; timeoutMs below 0: no limit.
    int32_t Call(int32_t fd, const void* data, uint32_t size, int64_t timeoutMs, uint32_t* id,
                 std::vector<uint8_t>* reply);
    // -16 from inside a callback of the pipe. From any other thread the pipe
    // stops delivering at once, its socket closes and the answer is 0; a
    // callback that runs meanwhile finishes, and the pipe is released after it.
    int32_t Close(int32_t fd);
    // The same, but allowed from inside the pipe's own callback, where the
    // close completes when that callback returns.
    int32_t CloseFromCallback(int32_t fd);

private:
    Engine();
    int32_t EnsureStarted();
    std::shared_ptr<Pipe> FindOpen(int32_t fd, const char* operation) const;
    int32_t ClosePipe(const std::shared_ptr<Pipe>& pipe, bool ownCallbackMayClose);
    bool DeliverOne(const std::shared_ptr<Pipe>& pipe);
    void Shutdown();

    const pid_t ownerPid_;
    PipeTable table_;
    ThreadGroup threads_;
    Dispatcher dispatcher_;
    IoLoop loop_;
    std::mutex startMutex_;
    bool started_ = false;
    bool stopped_ = false;
};

} // namespace Tubix

#endif
