#include "zul/resource.h"

#include <errno.h>

#include <chrono>
#include <cstring>

#include "core/log.h"
#include "tubix/engine.h"
#include "tubix/frame.h"

namespace Zul {
namespace {

// u32 cmd (or i32 result), then u32 0, then the record.
constexpr size_t IOCTL_HEADER_SIZE = 8;
// How long a withdrawal waits for entries that run on other threads.
constexpr auto WITHDRAW_WAIT = std::chrono::seconds(5);

// The resource whose entry runs on this thread, so that an entry that
// withdraws does not wait for itself.
thread_local const Resource* runningHere = nullptr;

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
    std::unordered_map<int32_t, std::unique_ptr<OpenFile>> left;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        withdrawn_ = true;
        const uint32_t own = runningHere == this ? 1 : 0;
        if (!idle_.wait_for(lock, WITHDRAW_WAIT, [this, own] { return runningEntries_ <= own; })) {
            Stavik::Syslog(LOG_ERR, "ZUL: %s withdrawn while %u entries still run", name_.c_str(),
                           runningEntries_ - own);
        }
        left.swap(files_);
    }
    for (auto& open : left) {
        if (ops_.closeEntry != nullptr) {
            ops_.closeEntry(&open.second->file);
        }
    }
}

bool Resource::EnterEntry()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (withdrawn_) {
        return false;
    }
    ++runningEntries_;
    runningHere = this;
    return true;
}

void Resource::LeaveEntry()
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        --runningEntries_;
        runningHere = nullptr;
    }
    idle_.notify_all();
}

void Resource::OnHello(int32_t fd, const std::string& clientName)
{
    if (!EnterEntry()) {
        Tubix::Engine::Instance().CloseFromCallback(fd);
        return;
    }
    auto open = std::make_unique<OpenFile>();
    open->clientName = clientName;
    open->file = ZulFile{fd, 0, name_.c_str(), open->clientName.c_str(), nullptr};
    int32_t rc = ops_.openEntry != nullptr ? ops_.openEntry(&open->file) : 0;
    if (rc < 0) {
        LeaveEntry();
        Stavik::Syslog(LOG_WARNING, "ZUL: %s refused the open by %s, ret=%d", name_.c_str(), clientName.c_str(), rc);
        Tubix::Engine::Instance().CloseFromCallback(fd);
        return;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        files_[fd] = std::move(open);
    }
    LeaveEntry();
}

void Resource::OnRequest(int32_t fd, const TubixRequest* req)
{
    if (req == nullptr) {
        // The library releases the connection after this callback, and OnClosed runs Close.
        return;
    }
    if (!EnterEntry()) {
        Answer(fd, req->id, BareReply(-ENODEV));
        return;
    }
    ZulFile* file = FindFile(fd);
    if (file == nullptr) {
        LeaveEntry();
        Stavik::Syslog(LOG_ERR, "ZUL: %s got a request on fd=%d that it never opened", name_.c_str(), fd);
        return;
    }
    if (req->size < IOCTL_HEADER_SIZE) {
        LeaveEntry();
        Stavik::Syslog(LOG_ERR, "ZUL: %s ioctl of %u bytes on fd=%d is shorter than its header", name_.c_str(),
                       req->size, fd);
        Answer(fd, req->id, BareReply(-EINVAL));
        return;
    }
    std::vector<uint8_t> reply = RunIoctl(file, *req);
    LeaveEntry();
    Answer(fd, req->id, reply);
}

void Resource::OnClosed(int32_t fd)
{
    std::unique_ptr<OpenFile> open;
    {
        // A withdrawal has closed the opens it found, and takes no more.
        std::lock_guard<std::mutex> guard(mutex_);
        auto found = files_.find(fd);
        if (withdrawn_ || found == files_.end()) {
            return;
        }
        open = std::move(found->second);
        files_.erase(found);
        ++runningEntries_;
        runningHere = this;
    }
    if (ops_.closeEntry != nullptr) {
        ops_.closeEntry(&open->file);
    }
    LeaveEntry();
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
