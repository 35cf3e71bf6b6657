#ifndef STAVIK_PLATFORM_HOST_TUBIX_PIPE_SINK_H
#define STAVIK_PLATFORM_HOST_TUBIX_PIPE_SINK_H

#include <cstdint>
#include <string>

#include "tubix.h"

namespace Tubix {

// Whoever consumes what arrives on a pipe: the handler of an opened pipe, a
// server's callbacks, or a naming-service resource. The first two calls run on
// a delivery thread, one at a time per pipe and in arrival order.
class PipeSink {
public:
    virtual ~PipeSink() = default;
    // A client announced itself (server side only), before any of its requests.
    virtual void OnHello(int32_t fd, const std::string& clientName) = 0;
    // One request; null once, after the last one, when the peer has gone.
    virtual void OnRequest(int32_t fd, const TubixRequest* req) = 0;
    // The pipe was closed by this process; nothing follows. Runs on the closing
    // thread, or right after the callback that closed its own pipe.
    virtual void OnClosed(int32_t fd) = 0;
};

} // namespace Tubix

#endif
