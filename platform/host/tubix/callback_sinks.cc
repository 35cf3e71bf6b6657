#include "tubix/callback_sinks.h"

namespace Tubix {

void HandlerSink::OnHello(int32_t, const std::string&)
{
    // The opening side never receives a hello; the reading thread drops one.
}

void HandlerSink::OnRequest(int32_t fd, const TubixRequest* req)
{
    handler_(fd, req);
}

void HandlerSink::OnClosed(int32_t)
{
}

void ServerSink::OnHello(int32_t fd, const std::string& clientName)
{
    if (onConnect_ != nullptr) {
        onConnect_(fd, clientName.c_str(), static_cast<uint32_t>(clientName.size()));
    }
}

void ServerSink::OnRequest(int32_t fd, const TubixRequest* req)
{
    onRequest_(fd, req);
}

void ServerSink::OnClosed(int32_t)
{
}

} // namespace Tubix
