#ifndef STAVIK_CLIENT_OWNER_SESSION_H
#define STAVIK_CLIENT_OWNER_SESSION_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "channel/message.h"
#include "client/owner_event.h"
#include "client/server_slots.h"

namespace Stavik {
namespace Client {

// Plays an owner service of the daemon: listens as its own name, takes the
// pipe that the daemon opens to it, sends requests on that pipe and keeps
// every event that arrives, in arrival order, for the life of the session.
// Several sessions of different names may run in one process.
//
//     OwnerSession session("zulmgr");
//     ASSERT_TRUE(session.Start()) << session.LastError();
//     ASSERT_TRUE(session.WaitForDaemon(10000));
//     size_t mark = session.EventCount();
//     ASSERT_TRUE(session.SendStart({{"app", {}, {}}})) << session.LastError();
//     ASSERT_TRUE(session.WaitForAppState("app", 0, 10000, mark));
//
// Every wait is bounded by its argument. Accessors may be called from any
// thread; Start, Stop and the destructor not from inside the listener.
class OwnerSession : private ServerCallbacks {
public:
    static constexpr int DEFAULT_RPC_TIMEOUT_MS = 10000;

    explicit OwnerSession(std::string name);
    ~OwnerSession() override;
    OwnerSession(const OwnerSession&) = delete;
    OwnerSession& operator=(const OwnerSession&) = delete;

    const std::string& Name() const { return name_; }

    // Called with each event before the accessors and waits see it, one call
    // at a time and in arrival order, on a library thread. Set it before Start.
    void SetListener(std::function<void(const OwnerEvent&)> listener);

    // Listens as Name() under $TUBIX_DIR; false with LastError().
    bool Start();
    // Closes the pipes; no event arrives afterwards, the kept ones stay.
    void Stop();

    // True once the daemon (the client named "STAVIK") holds a pipe, waiting up to timeoutMs.
    bool WaitForDaemon(int timeoutMs) const;
    // The daemon's pipe, or -1 while there is none.
    int32_t DaemonFd() const;

    // Requests on the daemon's pipe. False with LastError() when the record
    // can't be built, there is no pipe or the send fails; a busy pipe is
    // retried for about two seconds. Start and restart follow the dialect of Name().
    bool SendStart(const std::vector<Message::StartAppInfo>& apps);
    bool SendRestart(const std::vector<Message::RestartAppInfo>& apps);
    bool SendTerm(const std::vector<std::string>& appNames);
    bool SendState(Message::BaseServiceStateType state);
    bool SendExec(const Message::AppExecInfo& info);
    bool SendQuery(const std::vector<std::string>& appNames);
    // Start-up configuration requests wait for the daemon's answer, the text
    // of its result ("0" for success).
    bool LoadStartupCfg(const Message::StartupCfgInfo& info, std::string& answer,
                        int timeoutMs = DEFAULT_RPC_TIMEOUT_MS);
    bool ReloadStartupCfg(const Message::StartupCfgInfo& info, std::string& answer,
                          int timeoutMs = DEFAULT_RPC_TIMEOUT_MS);
    // Any record, sent as it is, or sent as a call that waits for an answer.
    bool SendRecord(const Message::RequestMsg& msg);
    bool CallRecord(const Message::RequestMsg& msg, std::string& answer, int timeoutMs = DEFAULT_RPC_TIMEOUT_MS);
    // A transport message of any length, for tests of what isn't a record.
    bool SendBytes(const std::string& bytes);
    // Why the last failed operation of this session failed.
    std::string LastError() const;

    std::vector<OwnerEvent> Events() const;
    size_t EventCount() const;
    // The entries of every REPORT_APP_STATE record, in arrival order.
    std::vector<Message::AppStateInfo> Reports() const;
    // The first event at or after index `from` that `match` accepts, waiting
    // up to timeoutMs for it; nothing when none came in time. `match` runs
    // outside the session's lock and may call the session.
    std::optional<OwnerEvent> WaitFor(const std::function<bool(const OwnerEvent&)>& match, int timeoutMs,
                                      size_t from = 0) const;
    // The first reported entry of appName in `state` (a ReportAppStateType
    // value) in an event at or after `from`.
    std::optional<Message::AppStateInfo> WaitForAppState(const std::string& appName, uint32_t state,
                                                         int timeoutMs, size_t from = 0) const;

private:
    void OnConnect(int32_t fd, const std::string& clientName) override;
    void OnRequest(int32_t fd, const TubixRequest* req) override;
    void Keep(OwnerEvent event);
    bool Fail(const std::string& error);
    bool PackAndSend(bool packed, const Message::RequestMsg& msg, const std::string& error);
    bool SendOnDaemonPipe(const void* data, size_t size);
    bool StartupCfgCall(Message::RequestType type, const Message::StartupCfgInfo& info, std::string& answer,
                        int timeoutMs);
    void ClosePipes();

    const std::string name_;
    bool bound_ = false;

    // Serialises the listener calls, so that they keep arrival order.
    std::mutex deliveryMutex_;
    std::function<void(const OwnerEvent&)> listener_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<OwnerEvent> events_;
    std::set<int32_t> pipes_;
    int32_t daemonFd_ = -1;
    std::string lastError_;
};

} // namespace Client
} // namespace Stavik

#endif
