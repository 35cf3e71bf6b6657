#ifndef STAVIK_CHANNEL_UPLOAD_H
#define STAVIK_CHANNEL_UPLOAD_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>

#include "channel/serialization_upload.h"
#include "tubix.h"

namespace SkUpload {

using LoadAppCallBack = std::function<bool(const LoadAppInfo& info, int32_t fd)>;

// The server through which processes the daemon did not start announce
// themselves; it listens under the daemon's own name.
class SkUploadServer {
public:
    static SkUploadServer& Instance();

    bool RegXCallBack();
    void SetCallBack(LoadAppCallBack callBack);
    // Drops the callback and closes every client pipe, so that no request
    // reaches the daemon once it goes.
    void Close();
    void HandleRequest(int32_t fd, const TubixRequest* req);
    void NoteClient(int32_t fd);

private:
    SkUploadServer() = default;
    bool Call(const LoadAppInfo& info, int32_t fd);

    std::mutex mutex_;
    LoadAppCallBack callBack_;
    std::set<int32_t> clientFds_;
};

// The request callback of the server.
void SkHandleRequest(int32_t fd, const TubixRequest* req);
// Closes a client pipe, waiting while it is busy.
void CloseTubixFd(int32_t fd);

} // namespace SkUpload

#endif
