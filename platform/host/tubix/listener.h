#ifndef STAVIK_PLATFORM_HOST_TUBIX_LISTENER_H
#define STAVIK_PLATFORM_HOST_TUBIX_LISTENER_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "tubix/pipe_sink.h"

namespace Tubix {

// A listening socket: a server of TubixCreateServer or a naming-service resource.
class Listener {
public:
    Listener(int32_t id, int fd, std::string path, ino_t inode, std::shared_ptr<PipeSink> sink,
             uint32_t maxConnections, int epollFd);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int32_t Id() const { return id_; }
    const std::string& Path() const { return path_; }
    const std::shared_ptr<PipeSink>& Sink() const { return sink_; }

    bool Watch();
    // A new connection's socket, or -1 when none waits or the listener is full (logged).
    int Accept();
    void DropConnection();
    // Stops listening and removes the socket file if it is still ours.
    void Close();

private:
    const int32_t id_;
    const std::string path_;
    const ino_t inode_;
    const std::shared_ptr<PipeSink> sink_;
    const uint32_t maxConnections_;
    const int epollFd_;
    std::mutex mutex_;
    int fd_;
    uint32_t connections_ = 0;
    int lastAcceptError_ = 0;
};

} // namespace Tubix

#endif
