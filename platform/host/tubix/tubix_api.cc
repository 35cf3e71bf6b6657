// The Tubix calls: argument checks, then the engine.
#include <errno.h>

#include <cstring>

#include "core/log.h"
#include "tubix.h"
#include "tubix/callback_sinks.h"
#include "tubix/engine.h"
#include "tubix/runtime_dir.h"

namespace {

constexpr int64_t NO_TIME_LIMIT = -1;

int32_t CallAndAnswer(int32_t fd, TubixRequest* req, TubixResponse* resp, int64_t timeoutMs)
{
    if (req == nullptr || resp == nullptr) {
        Stavik::Syslog(LOG_ERR, "Tubix: rpc on fd=%d without request or response", fd);
        return -EINVAL;
    }
    std::vector<uint8_t> reply;
    int32_t rc = Tubix::Engine::Instance().Call(fd, req->data, req->size, timeoutMs, &req->id, &reply);
    if (rc != 0) {
        return rc;
    }
    resp->id = req->id;
    if (reply.size() > resp->size || (resp->data == nullptr && !reply.empty())) {
        Stavik::Syslog(LOG_ERR, "Tubix: rpc on fd=%d: response of %zu bytes does not fit %u", fd, reply.size(),
                       resp->size);
        resp->size = static_cast<uint32_t>(reply.size());
        return -EMSGSIZE;
    }
    if (!reply.empty()) {
        memcpy(resp->data, reply.data(), reply.size());
    }
    resp->size = static_cast<uint32_t>(reply.size());
    return 0;
}

} // namespace

int32_t TubixOpen(const TubixOpenParam* param)
{
    if (param == nullptr || param->procName == nullptr || !param->handler) {
        Stavik::Syslog(LOG_ERR, "Tubix: open without a service name or a handler");
        return -EINVAL;
    }
    std::string name = param->procName;
    if (!Tubix::IsSafeServiceName(name)) {
        return -EINVAL;
    }
    int32_t timeoutMs = param->timeoutMs >= 0 ? param->timeoutMs : Tubix::DefaultOpenTimeoutMs();
    std::string path = Tubix::RuntimeDir() + "/" + name;
    int32_t fd = Tubix::Engine::Instance().Connect(path, timeoutMs, param->retryOnMissing != 0, param->gid,
                                                   Tubix::OwnProcName(),
                                                   std::make_shared<Tubix::HandlerSink>(param->handler));
    if (fd == -EAGAIN) {
        Stavik::Syslog(LOG_ERR, "Tubix: open %s (gid %u): no service within %d ms", path.c_str(), param->gid,
                       timeoutMs);
    }
    return fd;
}

int32_t TubixCreateServer(const TubixServerParam* param)
{
    if (param == nullptr || param->requestCallback == nullptr) {
        Stavik::Syslog(LOG_ERR, "Tubix: server without a request callback");
        return -EINVAL;
    }
    std::string name = Tubix::OwnProcName();
    if (name.empty()) {
        Stavik::Syslog(LOG_ERR, "Tubix: server without a name: PROC_NAME is not set");
        return -EINVAL;
    }
    if (!Tubix::IsSafeServiceName(name)) {
        return -EINVAL;
    }
    int32_t rc = Tubix::Engine::Instance().Listen(
        Tubix::RuntimeDir() + "/" + name, param->maxConnections,
        std::make_shared<Tubix::ServerSink>(param->connectCallback, param->requestCallback), true);
    return rc < 0 ? rc : 0;
}

int32_t TubixSendRequest(int32_t fd, TubixRequest req)
{
    return Tubix::Engine::Instance().Send(fd, Tubix::FrameKind::REQUEST, 0, req.data, req.size);
}

int32_t TubixSendResponse(int32_t fd, TubixResponse resp)
{
    return Tubix::Engine::Instance().Send(fd, Tubix::FrameKind::RESPONSE, resp.id, resp.data, resp.size);
}

int32_t TubixRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp)
{
    return CallAndAnswer(fd, req, resp, NO_TIME_LIMIT);
}

int32_t TubixTimedRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp, uint32_t timeoutMs)
{
    return CallAndAnswer(fd, req, resp, timeoutMs);
}

int32_t TubixClosePipe(int32_t fd)
{
    return Tubix::Engine::Instance().Close(fd);
}
