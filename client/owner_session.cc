#include "client/owner_session.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "client/request_packer.h"
#include "core/constants.h"

namespace Stavik {
namespace Client {

using Message::RequestMsg;

namespace {

// A busy pipe is tried for about two seconds, as the daemon does on its side.
constexpr int SEND_ATTEMPTS = 401;
constexpr std::chrono::milliseconds SEND_RETRY_PAUSE{5};
constexpr int32_t TUBIX_TRY_AGAIN = -11;
constexpr int32_t TUBIX_BUSY = -16;
constexpr int CLOSE_ATTEMPTS = 100;
// The daemon's answers are short decimal texts.
constexpr size_t ANSWER_MAX = 4096;

// The daemon serves, and announces itself, under its log ident.
const std::string& DaemonName()
{
    return SK_LOG_IDENT;
}

template <typename Call>
int32_t RetryWhileBusy(Call call)
{
    int32_t rc = TUBIX_TRY_AGAIN;
    for (int attempt = 0; attempt < SEND_ATTEMPTS && rc == TUBIX_TRY_AGAIN; ++attempt) {
        rc = call();
        if (rc == TUBIX_TRY_AGAIN) {
            std::this_thread::sleep_for(SEND_RETRY_PAUSE);
        }
    }
    return rc;
}

std::chrono::milliseconds Bounded(int timeoutMs)
{
    return std::chrono::milliseconds(std::max(timeoutMs, 0));
}

} // namespace

OwnerSession::OwnerSession(std::string name) : name_(std::move(name)) {}

OwnerSession::~OwnerSession()
{
    Stop();
}

void OwnerSession::SetListener(std::function<void(const OwnerEvent&)> listener)
{
    std::lock_guard<std::mutex> delivery(deliveryMutex_);
    listener_ = std::move(listener);
}

bool OwnerSession::Start()
{
    if (bound_) {
        return true;
    }
    std::string error;
    if (!BindServer(name_, this, error)) {
        return Fail(error);
    }
    bound_ = true;
    return true;
}

void OwnerSession::Stop()
{
    if (bound_) {
        UnbindServer(this);
        bound_ = false;
    }
    ClosePipes();
}

void OwnerSession::ClosePipes()
{
    std::set<int32_t> pipes;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        pipes.swap(pipes_);
        daemonFd_ = -1;
    }
    for (int32_t fd : pipes) {
        for (int attempt = 0; attempt < CLOSE_ATTEMPTS && TubixClosePipe(fd) == TUBIX_BUSY; ++attempt) {
            std::this_thread::sleep_for(SEND_RETRY_PAUSE);
        }
    }
}

bool OwnerSession::WaitForDaemon(int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, Bounded(timeoutMs), [this] { return daemonFd_ > 0; });
}

int32_t OwnerSession::DaemonFd() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return daemonFd_;
}

void OwnerSession::OnConnect(int32_t fd, const std::string& clientName)
{
    OwnerEvent event;
    event.kind = OwnerEvent::Kind::CONNECTED;
    event.fd = fd;
    event.client = clientName;
    Keep(std::move(event));
}

void OwnerSession::OnRequest(int32_t fd, const TubixRequest* req)
{
    if (req != nullptr) {
        Keep(DecodeReceived(fd, *req));
        return;
    }
    OwnerEvent event;
    event.kind = OwnerEvent::Kind::DISCONNECTED;
    event.fd = fd;
    Keep(std::move(event));
    TubixClosePipe(fd);
}

void OwnerSession::Keep(OwnerEvent event)
{
    // Only this function adds events, under deliveryMutex_, so the index holds.
    std::lock_guard<std::mutex> delivery(deliveryMutex_);
    event.index = EventCount();
    if (listener_) {
        listener_(event);
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (event.kind == OwnerEvent::Kind::CONNECTED) {
            pipes_.insert(event.fd);
            if (event.client == DaemonName()) {
                daemonFd_ = event.fd;
            }
        } else if (event.kind == OwnerEvent::Kind::DISCONNECTED) {
            pipes_.erase(event.fd);
            if (daemonFd_ == event.fd) {
                daemonFd_ = -1;
            }
        }
        events_.push_back(std::move(event));
    }
    changed_.notify_all();
}

bool OwnerSession::Fail(const std::string& error)
{
    std::lock_guard<std::mutex> guard(mutex_);
    lastError_ = error;
    return false;
}

std::string OwnerSession::LastError() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return lastError_;
}

bool OwnerSession::SendOnDaemonPipe(const void* data, size_t size)
{
    int32_t fd = DaemonFd();
    if (fd <= 0) {
        return Fail("no pipe from the daemon");
    }
    TubixRequest req{0, data, static_cast<uint32_t>(size)};
    int32_t rc = RetryWhileBusy([&] { return TubixSendRequest(fd, req); });
    if (rc != 0) {
        return Fail("send on fd=" + std::to_string(fd) + " failed: " + std::to_string(rc));
    }
    return true;
}

bool OwnerSession::SendRecord(const RequestMsg& msg)
{
    return SendOnDaemonPipe(&msg, sizeof(msg));
}

bool OwnerSession::SendBytes(const std::string& bytes)
{
    if (bytes.size() > UINT32_MAX) {
        return Fail("a message of " + std::to_string(bytes.size()) + " bytes is too long");
    }
    return SendOnDaemonPipe(bytes.data(), bytes.size());
}

bool OwnerSession::CallRecord(const RequestMsg& msg, std::string& answer, int timeoutMs)
{
    int32_t fd = DaemonFd();
    if (fd <= 0) {
        return Fail("no pipe from the daemon");
    }
    std::vector<char> buffer(ANSWER_MAX);
    TubixRequest req{0, &msg, sizeof(msg)};
    TubixResponse resp{0, buffer.data(), 0};
    int32_t rc = RetryWhileBusy([&] {
        resp.size = static_cast<uint32_t>(buffer.size());
        return TubixTimedRPCSync(fd, &req, &resp, static_cast<uint32_t>(Bounded(timeoutMs).count()));
    });
    if (rc != 0) {
        return Fail("call on fd=" + std::to_string(fd) + " failed: " + std::to_string(rc));
    }
    answer.assign(buffer.data(), resp.size);
    return true;
}

bool OwnerSession::PackAndSend(bool packed, const RequestMsg& msg, const std::string& error)
{
    return packed ? SendRecord(msg) : Fail(error);
}

bool OwnerSession::SendStart(const std::vector<Message::StartAppInfo>& apps)
{
    RequestMsg msg{};
    std::string error;
    bool packed = PackStartRequest(apps, DialectFor(name_), msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::SendRestart(const std::vector<Message::RestartAppInfo>& apps)
{
    RequestMsg msg{};
    std::string error;
    bool packed = PackRestartRequest(apps, DialectFor(name_), msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::SendTerm(const std::vector<std::string>& appNames)
{
    std::vector<Message::TermAppInfo> apps;
    for (const std::string& appName : appNames) {
        apps.push_back(Message::TermAppInfo{appName});
    }
    RequestMsg msg{};
    std::string error;
    bool packed = PackTermRequest(apps, msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::SendState(Message::BaseServiceStateType state)
{
    RequestMsg msg{};
    std::string error;
    bool packed = PackBaseServiceStateRequest(Message::BaseServiceStateInfo{static_cast<uint32_t>(state)}, msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::SendExec(const Message::AppExecInfo& info)
{
    RequestMsg msg{};
    std::string error;
    bool packed = PackAppExecRequest(info, msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::SendQuery(const std::vector<std::string>& appNames)
{
    RequestMsg msg{};
    std::string error;
    bool packed = PackQueryAppStateRequest(appNames, msg, error);
    return PackAndSend(packed, msg, error);
}

bool OwnerSession::StartupCfgCall(Message::RequestType type, const Message::StartupCfgInfo& info,
                                  std::string& answer, int timeoutMs)
{
    RequestMsg msg{};
    std::string error;
    if (!PackStartupCfgRequest(type, info, msg, error)) {
        return Fail(error);
    }
    return CallRecord(msg, answer, timeoutMs);
}

bool OwnerSession::LoadStartupCfg(const Message::StartupCfgInfo& info, std::string& answer, int timeoutMs)
{
    return StartupCfgCall(Message::LOAD_STARTUP_CFG, info, answer, timeoutMs);
}

bool OwnerSession::ReloadStartupCfg(const Message::StartupCfgInfo& info, std::string& answer, int timeoutMs)
{
    return StartupCfgCall(Message::RELOAD_STARTUP_CFG, info, answer, timeoutMs);
}

std::vector<OwnerEvent> OwnerSession::Events() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return events_;
}

size_t OwnerSession::EventCount() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return events_.size();
}

std::vector<Message::AppStateInfo> OwnerSession::Reports() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<Message::AppStateInfo> reports;
    for (const OwnerEvent& event : events_) {
        if (event.kind == OwnerEvent::Kind::REPORT) {
            reports.insert(reports.end(), event.apps.begin(), event.apps.end());
        }
    }
    return reports;
}

std::optional<OwnerEvent> OwnerSession::WaitFor(const std::function<bool(const OwnerEvent&)>& match,
                                                int timeoutMs, size_t from) const
{
    auto deadline = std::chrono::steady_clock::now() + Bounded(timeoutMs);
    size_t next = from;
    while (true) {
        std::vector<OwnerEvent> fresh;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_until(lock, deadline, [&] { return events_.size() > next; });
            if (events_.size() > next) {
                fresh.assign(events_.begin() + static_cast<long>(next), events_.end());
            }
        }
        if (fresh.empty()) {
            return std::nullopt;
        }
        for (const OwnerEvent& event : fresh) {
            if (match(event)) {
                return event;
            }
        }
        next += fresh.size();
    }
}

std::optional<Message::AppStateInfo> OwnerSession::WaitForAppState(const std::string& appName, uint32_t state,
                                                                   int timeoutMs, size_t from) const
{
    auto isWanted = [&](const Message::AppStateInfo& app) { return app.appName == appName && app.state == state; };
    std::optional<OwnerEvent> event = WaitFor(
        [&](const OwnerEvent& candidate) {
            return candidate.kind == OwnerEvent::Kind::REPORT &&
                   std::any_of(candidate.apps.begin(), candidate.apps.end(), isWanted);
        },
        timeoutMs, from);
    if (!event) {
        return std::nullopt;
    }
    return *std::find_if(event->apps.begin(), event->apps.end(), isWanted);
}

} // namespace Client
} // namespace Stavik
