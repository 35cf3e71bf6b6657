#include "channel/upload.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "channel/tubix_wrappers.h"
#include "core/log.h"
#include "core/sleep.h"
#include "resource/sharepool.h"

namespace SkUpload {
namespace {

using Stavik::Syslog;

const uint32_t SERVER_MAX_CONNECTIONS = 1000;
const uint32_t SERVER_THREADS = 1;
const uint32_t CLOSE_ATTEMPTS = 50;
const uint64_t CLOSE_RETRY_NS = 100 * Stavik::NS_PER_MS;

void ServerCallBack(int32_t fd, const char* clientName, uint32_t nameLen)
{
    Syslog(LOG_INFO, "server callback fd=%d, clientName=%s, nameLen=%d", fd, clientName != nullptr ? clientName : "",
           static_cast<int32_t>(nameLen));
    if (fd < 0) {
        Syslog(LOG_ERR, "server callback fd=%d is invalid.", fd);
        return;
    }
    SkUploadServer::Instance().NoteClient(fd);
}

bool IsWhiteListed(const std::string& binPath)
{
    for (const std::string& path : Stavik::SharepoolCfg::Instance().WhiteLists()) {
        if (path == binPath) {
            return true;
        }
    }
    return false;
}

} // namespace

SkUploadServer& SkUploadServer::Instance()
{
    static SkUploadServer server;
    return server;
}

bool SkUploadServer::RegXCallBack()
{
    TubixServerParam param{};
    param.connectCallback = ServerCallBack;
    param.requestCallback = SkHandleRequest;
    param.maxConnections = SERVER_MAX_CONNECTIONS;
    param.threadNum = SERVER_THREADS;
    return TubixCreateServer(&param) >= 0;
}

void SkUploadServer::SetCallBack(LoadAppCallBack callBack)
{
    std::lock_guard<std::mutex> lock(mutex_);
    callBack_ = std::move(callBack);
}

void SkUploadServer::NoteClient(int32_t fd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    clientFds_.insert(fd);
}

void SkUploadServer::Close()
{
    std::set<int32_t> fds;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callBack_ = nullptr;
        fds.swap(clientFds_);
    }
    for (int32_t fd : fds) {
        CloseTubixFd(fd);
    }
}

// A request that comes before the callback is bound, or after the stop, is
// refused rather than let into a daemon that isn't there.
bool SkUploadServer::Call(const LoadAppInfo& info, int32_t fd)
{
    LoadAppCallBack callBack;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callBack = callBack_;
    }
    if (!callBack) {
        Syslog(LOG_ERR, "SkHandleRequest: no load callback, pid=%d is refused", info.pid);
        return false;
    }
    return callBack(info, fd);
}

void SkUploadServer::HandleRequest(int32_t fd, const TubixRequest* req)
{
    if (req == nullptr) {
        Syslog(LOG_WARNING, "SkHandleRequest: req is nullptr, connection is broken, fd=%d exits", fd);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            clientFds_.erase(fd);
        }
        // A pipe can't be closed from its own callback; another thread closes
        // it at once instead of this delivery thread waiting in vain.
        std::thread(CloseTubixFd, fd).detach();
        return;
    }
    if (req->data == nullptr || req->size != sizeof(SkUploadRequest)) {
        Syslog(LOG_ERR, "SkHandleRequest: req size=%u bytes, req msg size=%lu bytes", req->size,
               sizeof(SkUploadRequest));
        return;
    }
    SkUploadRequest request;
    memcpy(&request, req->data, sizeof(request));
    if (request.size > SK_UPLOAD_DATA_SIZE) {
        Syslog(LOG_ERR, "SkHandleRequest failed: request size=%lu bytes > %lu", request.size, SK_UPLOAD_DATA_SIZE);
        return;
    }
    LoadAppInfo info;
    if (!UnPackInfoRequest(request, info)) {
        return;
    }
    Syslog(LOG_INFO, "SkHandleRequest receive pid=%d, pidAppName=%s, binPath=%s", info.pid, info.pidAppName.c_str(),
           info.binPath.c_str());
    bool ok = Call(info, fd);
    bool isWhiteListed = IsWhiteListed(info.binPath);
    std::vector<std::string> names = Stavik::SharepoolCfg::Instance().GroupNames();
    std::string text;
    PackResponseToSkupload(ok, isWhiteListed, names, info.receivedMemGroupsNum, text);
    TubixResponse response{req->id, &text[0], static_cast<uint32_t>(text.size())};
    (void)Stavik::StavikTubixSendResponse(fd, response);
}

void SkHandleRequest(int32_t fd, const TubixRequest* req)
{
    SkUploadServer::Instance().HandleRequest(fd, req);
}

void CloseTubixFd(int32_t fd)
{
    Syslog(LOG_INFO, "CloseTubixFd begin. fd=%d", fd);
    if (fd < 0) {
        return;
    }
    int32_t result = 0;
    for (uint32_t attempt = 0; attempt < CLOSE_ATTEMPTS; ++attempt) {
        result = TubixClosePipe(fd);
        if (result >= 0) {
            Syslog(LOG_INFO, "CloseTubixFd TubixClosePipe success. fd=%d", fd);
            return;
        }
        if (result != Stavik::TUBIX_BUSY) {
            break;
        }
        Stavik::SleepNs(CLOSE_RETRY_NS);
    }
    Syslog(LOG_ERR, "CloseTubixFd: TubixClosePipe failed err=%d", result);
}

} // namespace SkUpload
