#ifndef STAVIK_PLATFORM_HOST_TUBIX_CALLBACK_SINKS_H
#define STAVIK_PLATFORM_HOST_TUBIX_CALLBACK_SINKS_H

#include "tubix.h"
#include "tubix/pipe_sink.h"

namespace Tubix {

// The handler of a pipe opened with TubixOpen.
class HandlerSink : public PipeSink {
public:
    explicit HandlerSink(TubixRequestHandler handler) : handler_(std::move(handler)) {}
    void OnHello(int32_t fd, const std::string& clientName) override;
    void OnRequest(int32_t fd, const TubixRequest* req) override;
    void OnClosed(int32_t fd) override;

private:
    const TubixRequestHandler handler_;
};

// The two callbacks of a server made with TubixCreateServer.
class ServerSink : public PipeSink {
public:
    ServerSink(TubixConnectCallback onConnect, TubixServerRequestCallback onRequest)
        : onConnect_(onConnect), onRequest_(onRequest)
    {
    }
    void OnHello(int32_t fd, const std::string& clientName) override;
    void OnRequest(int32_t fd, const TubixRequest* req) override;
    void OnClosed(int32_t fd) override;

private:
    const TubixConnectCallback onConnect_;
    const TubixServerRequestCallback onRequest_;
};

} // namespace Tubix

#endif
