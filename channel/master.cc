#include "channel/master.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "channel/tubix_wrappers.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/sleep.h"

namespace Stavik {
namespace {

const uint32_t UNREG_CLOSE_ATTEMPTS = 20;
const uint64_t UNREG_CLOSE_SLEEP_NS = 100 * NS_PER_MS;

} // namespace

Master::Master()
{
    pthread_rwlock_init(&ownerFdLock_, nullptr);
}

Master::~Master()
{
    pthread_rwlock_destroy(&ownerFdLock_);
}

Master::FdLockGuard::FdLockGuard(pthread_rwlock_t& lock, Mode mode) : lock_(lock)
{
    int result;
    if (mode == Mode::WRITE) {
        result = pthread_rwlock_wrlock(&lock_);
    } else {
        // A reader may be refused for a moment when too many hold the lock.
        while ((result = pthread_rwlock_rdlock(&lock_)) == EAGAIN) {
        }
    }
    if (result == EDEADLK) {
        throw std::system_error(result, std::generic_category(), "ownerFdLock_");
    }
    held_ = result == 0;
    if (!held_) {
        Syslog(LOG_ERR, "STAVIK : Master ownerFdLock_ failed, err code=%d", result);
    }
}

Master::FdLockGuard::~FdLockGuard()
{
    if (held_) {
        pthread_rwlock_unlock(&lock_);
    }
}

bool Master::RegServiceCallBack(const std::string& targetProcName, uint32_t gid, const OwnerRequestHandler& handler)
{
    if (getenv(PROC_NAME_ENV.c_str()) == nullptr) {
        Syslog(LOG_ERR, "********* STAVIK : RegServiceCallBack begin :skProcName is null, targetProcName=%s",
               targetProcName.c_str());
    }
    if (targetProcName.empty()) {
        Syslog(LOG_ERR, "STAVIK : RegServiceCallBack failed: procName is null");
        return false;
    }
    int32_t oldFd = -1;
    {
        FdLockGuard guard(ownerFdLock_, FdLockGuard::Mode::WRITE);
        int32_t& stored = ownerFds_[targetProcName];
        oldFd = stored;
        stored = -1;
    }
    // A restarted service is opened anew; its old pipe would otherwise stay with nobody to close it.
    if (oldFd > 0) {
        int32_t closed = TubixClosePipe(oldFd);
        Syslog(LOG_INFO, "STAVIK : RegServiceCallBack closes the old pipe fd=%d of %s, ret=%d", oldFd,
               targetProcName.c_str(), closed);
    }

    TubixOpenParam param{};
    param.procName = targetProcName.c_str();
    param.handler = [handler, targetProcName](int32_t fd, const TubixRequest* req) {
        handler(fd, req, targetProcName);
    };
    param.priority = -1;
    param.msgMode = 1;
    param.gid = gid;
    param.retryOnMissing = 1;
    param.flags = 0;
    param.timeoutMs = -1;

    int32_t fd = -1;
    {
        // Held across the open, so that no report looks the name up while its pipe comes up.
        FdLockGuard guard(ownerFdLock_, FdLockGuard::Mode::WRITE);
        fd = TubixOpen(&param);
        if (fd == TUBIX_TRY_AGAIN) {
            Syslog(LOG_ERR, "STAVIK : TubixOpen failed, try again");
            fd = TubixOpen(&param);
        }
        if (fd <= 0) {
            Syslog(LOG_ERR, "STAVIK : RegServiceCallBack failed!! ret=%d, errno=%d", fd, errno);
            return false;
        }
        ownerFds_[targetProcName] = fd;
    }
    Syslog(LOG_INFO, "********* STAVIK : RegServiceCallBack success fd=%d, targetProcName=%s", fd,
           targetProcName.c_str());
    return true;
}

void Master::UnRegServiceCallBack(const std::string& proName)
{
    int32_t fd = GetOwnerFd(proName);
    {
        FdLockGuard guard(ownerFdLock_, FdLockGuard::Mode::WRITE);
        ownerFds_[proName] = -1;
    }
    int32_t result = TUBIX_BUSY;
    for (uint32_t attempt = 0; attempt < UNREG_CLOSE_ATTEMPTS; ++attempt) {
        result = TubixClosePipe(fd);
        if (result >= 0) {
            Syslog(LOG_INFO, "STAVIK : Master UnRegServiceCallBack success proName: %s fd: %d", proName.c_str(), fd);
            return;
        }
        if (result != TUBIX_BUSY || attempt + 1 == UNREG_CLOSE_ATTEMPTS) {
            break;
        }
        SleepNs(UNREG_CLOSE_SLEEP_NS);
    }
    Syslog(LOG_ERR, "STAVIK : Master UnRegServiceCallBack failed: TubixClosePipe failed err code: %d", result);
}

int32_t Master::GetOwnerFd(const std::string& owner)
{
    FdLockGuard guard(ownerFdLock_, FdLockGuard::Mode::READ);
    auto found = ownerFds_.find(owner);
    return found == ownerFds_.end() ? -1 : found->second;
}

bool Master::SendRequestMsg(int32_t fd, const std::vector<Message::RequestMsg>& requestMsgs)
{
    if (requestMsgs.empty()) {
        Syslog(LOG_ERR, "STAVIK : Master SendRequestMsg failed: RequestPieceMsg is empty");
        return false;
    }
    for (const Message::RequestMsg& msg : requestMsgs) {
        TubixRequest req{};
        req.data = &msg;
        req.size = sizeof(Message::RequestMsg);
        int32_t result = StavikTubixSendRequest(fd, req);
        if (result < 0) {
            Syslog(LOG_ERR, "STAVIK : Master SendRequestMsg failed, err code=%d, fd=%d", result, fd);
            return false;
        }
    }
    return true;
}

} // namespace Stavik
