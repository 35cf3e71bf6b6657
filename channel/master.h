#ifndef STAVIK_CHANNEL_MASTER_H
#define STAVIK_CHANNEL_MASTER_H

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "channel/message.h"
#include "tubix.h"

namespace Stavik {

// Receives the records of one owner pipe, with the owner's name bound to it.
using OwnerRequestHandler = std::function<void(int32_t fd, const TubixRequest* req, std::string owner)>;

// The transport half of the control channel: one pipe per owner service,
// opened by the daemon after it started the service.
class Master {
public:
    Master();
    ~Master();
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

    // Opens the pipe to targetProcName and binds the handler with that name.
    bool RegServiceCallBack(const std::string& targetProcName, uint32_t gid, const OwnerRequestHandler& handler);
    template <typename Owner>
    bool RegServiceCallBack(const std::string& targetProcName, uint32_t gid,
                            void (Owner::*member)(int32_t, const TubixRequest*, std::string), Owner* object)
    {
        return RegServiceCallBack(targetProcName, gid,
                                  [member, object](int32_t fd, const TubixRequest* req, std::string owner) {
                                      (object->*member)(fd, req, std::move(owner));
                                  });
    }
    void UnRegServiceCallBack(const std::string& proName);
    // The owner's descriptor, or -1; never adds an entry.
    int32_t GetOwnerFd(const std::string& owner);
    // Sends the records in order; stops at the first failure.
    bool SendRequestMsg(int32_t fd, const std::vector<Message::RequestMsg>& requestMsgs);
    // A REPORT_APP_STATE report, in as many records as it needs; fire and forget.
    bool ReportAppState(const std::vector<Message::AppStateInfo>& apps, const std::string& owner);
    // The answer to a query, in one record.
    bool ReportAppDetailStatus(const Message::AppDetailStatusMap& statusMap, const std::string& owner);
    void CloseAllPipes(); // the stop: closes every owner pipe

private:
    // Holds ownerFdLock_ for one scope, shared for a look-up or alone for a
    // change. Only a deadlock is thrown; another failure is logged and the
    // scope runs unguarded.
    class FdLockGuard {
    public:
        enum class Mode { READ, WRITE };
        FdLockGuard(pthread_rwlock_t& lock, Mode mode);
        ~FdLockGuard();
        FdLockGuard(const FdLockGuard&) = delete;
        FdLockGuard& operator=(const FdLockGuard&) = delete;

    private:
        pthread_rwlock_t& lock_;
        bool held_ = false;
    };

    std::unordered_map<std::string, int32_t> ownerFds_;
    pthread_rwlock_t ownerFdLock_;
};

} // namespace Stavik

#endif
