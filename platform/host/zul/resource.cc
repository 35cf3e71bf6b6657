#include "zul/resource.h"

#include <errno.h>

#include <cstring>

#include "core/log.h"
#include "tubix/engine.h"
#include "tubix/frame.h"

namespace Zul {
namespace {

// u32 cmd (or i32 result), then u32 0, then the record.
constexpr size_t IOCTL_HEADER_SIZE = 8;

std::vector<uint8_t> BareReply(int32_t result)
{
    std::vector<uint8_t> reply(IOCTL_HEADER_SIZE, 0);
    Tubix::PutLe32(reply.data(), static_cast<uint32_t>(result));
    return reply;
}

} // namespace

Resource::Resource(std::string name, const ZulServiceOps& ops) : name_(std::move(name)), ops_(ops)
{
}

void Resource::Withdraw()
{
    std::lock_guard<std::mutex> guard(mutex_);
    withdrawn_ = true;
}

void Resource::OnHello(int32_t fd, const std::string& clientName)
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (withdrawn_) {
            Tubix::Engine::Instance().CloseFromCallback(fd);
            return;
        }
    }
    auto open = std::make_unique<OpenFile>();
    open->clientName = clientName;
    open->file = ZulFile{fd, 0, name_.c_str(), open->clientName.c_str(), nullptr};
    int32_t rc = ops_.openEntry != nullptr ? ops_.openEntry(&open->file) : 0;
    if (rc < 0) {
        Stavik::Syslog(LOG_WARNING, "ZUL: %s refused the open by %s, ret=%d", name_.c_str(), clientName.c_str(), rc);
        Tubix::Engine::Instance().CloseFromCallback(fd);
        return;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    files_[fd] = std::move(open);
}

void Resource::OnRequest(int32_t fd, const TubixRequest* req)
{
    if (req == nullptr) {
        // The library releases the connection after this callback, and OnClosed runs Close.
        return;
    }
    ZulFile* file = FindFile(fd);
    if (file == nullptr) {
        Stavik::Syslog(LOG_ERR, "ZUL: %s got a request on fd=%d that it never opened", name_.c_str(), fd);
        return;
    }
    if (req->size < IOCTL_HEADER_SIZE) {
        Stavik::Syslog(LOG_ERR, "ZUL: %s ioctl of %u bytes on fd=%d is shorter than its header", name_.c_str(),
                       req->size, fd);
        Answer(fd, req->id, BareReply(-EINVAL));
        return;
    }
    Answer(fd, req->id, RunIoctl(file, *req));
}

void Resource::OnClosed(int32_t fd)
{
    std::unique_ptr<OpenFile> open;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto found = files_.find(fd);
        if (found == files_.end()) {
            return;
        }
        open = std::move(found->second);
        files_.erase(found);
    }
    if (ops_.closeEntry != nullptr) {
        ops_.closeEntry(&open->file);
    }
}

ZulFile* Resource::FindFile(int32_t fd)
{
    // The entry lives until OnClosed, which never overlaps a callback of its pipe.
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = files_.find(fd);
    return found == files_.end() ? nullptr : &found->second->file;
}

std::vector<uint8_t> Resource::RunIoctl(ZulFile* file, const TubixRequest& req)
{
    const uint8_t* data = static_cast<const uint8_t*>(req.data);
    uint32_t cmd = Tubix::GetLe32(data);
    size_t recordSize = req.size - IOCTL_HEADER_SIZE;
    // The entry works on the record in place, in a buffer aligned for any record type.
    std::vector<uint8_t> reply(IOCTL_HEADER_SIZE + recordSize, 0);
    memcpy(reply.data() + IOCTL_HEADER_SIZE, data + IOCTL_HEADER_SIZE, recordSize);
    ZulIoctlArg arg{recordSize, reply.data() + IOCTL_HEADER_SIZE};
    int32_t result = ops_.ioctlEntry != nullptr ? ops_.ioctlEntry(file, cmd, &arg) : -ENOSYS;
    Tubix::PutLe32(reply.data(), static_cast<uint32_t>(result));
    return reply;
}

void Resource::Answer(int32_t fd, uint32_t id, const std::vector<uint8_t>& reply)
{
    // A client that does not read its replies fills only its own send queue.
    int32_t rc = Tubix::Engine::Instance().Send(fd, Tubix::FrameKind::RESPONSE, id, reply.data(),
                                                static_cast<uint32_t>(reply.size()));
    if (rc != 0) {
        Stavik::Syslog(LOG_ERR, "ZUL: %s reply on fd=%d failed, ret=%d", name_.c_str(), fd, rc);
    }
}

} // namespace Zul
