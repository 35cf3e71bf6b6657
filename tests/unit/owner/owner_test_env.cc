#include "owner_test_env.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "channel/serialization.h"
#include "tests/helpers/ipc_shared.h"

namespace OwnerTest {

using Stavik::Message::RequestMsg;
using Stavik::Test::DaemonProcess;

void OwnerTestBase::SetUp()
{
    sandbox_ = std::make_unique<Stavik::Test::Sandbox>();
    setenv("TUBIX_DIR", sandbox_->TubixDir().c_str(), 1);
    setenv("PROC_NAME", "STAVIK", 1);
}

void OwnerTestBase::TearDown()
{
    unsetenv("PROC_NAME");
    unsetenv("TUBIX_DIR");
    sandbox_.reset();
}

FakeDaemon::~FakeDaemon()
{
    Close();
}

bool FakeDaemon::Open(const std::string& owner)
{
    std::shared_ptr<State> state = state_;
    fd_ = IpcShared::OpenPipe(owner, [state](int32_t, const TubixRequest* req) { OnMessage(*state, req); },
                              TIMEOUT_MS);
    return fd_ > 0;
}

void FakeDaemon::Close()
{
    // Once the close answers 0 no callback starts; one that runs keeps its state alive.
    if (fd_ > 0) {
        TubixClosePipe(fd_);
    }
    fd_ = -1;
}

void FakeDaemon::OnMessage(State& state, const TubixRequest* req)
{
    if (req != nullptr) {
        std::lock_guard<std::mutex> guard(state.mutex);
        state.messages.emplace_back(static_cast<const char*>(req->data), req->size);
    }
}

bool FakeDaemon::WaitForMessages(size_t count) const
{
    return Stavik::Test::WaitUntil([&] { return Messages().size() >= count; }, TIMEOUT_MS);
}

std::vector<std::string> FakeDaemon::Messages() const
{
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->messages;
}

RequestMsg FakeDaemon::Record(size_t index) const
{
    RequestMsg msg{};
    std::vector<std::string> messages = Messages();
    if (index < messages.size() && messages[index].size() == sizeof(msg)) {
        memcpy(&msg, messages[index].data(), sizeof(msg));
    }
    return msg;
}

bool FakeDaemon::SendReport(const std::vector<Stavik::Message::AppStateInfo>& apps)
{
    std::vector<Stavik::Serialization::PackedPiece> pieces;
    std::vector<RequestMsg> records;
    if (!Stavik::Serialization::StavikPackAppStateRequest(apps, pieces) ||
        !Stavik::Serialization::StavikCombinePiecesMsg(Stavik::Message::REPORT_APP_STATE, pieces, records)) {
        return false;
    }
    return std::all_of(records.begin(), records.end(), [this](const RequestMsg& record) { return Send(record); });
}

bool FakeDaemon::SendDetail(const Stavik::Message::AppDetailStatusMap& statusMap)
{
    RequestMsg record{};
    return Stavik::Serialization::WriteAppDetailStatusBody(statusMap, record) && Send(record);
}

bool FakeDaemon::SendRecord(uint32_t type, const std::string& body)
{
    RequestMsg record{};
    record.type = type;
    record.size = body.size();
    memcpy(record.data, body.data(), std::min(body.size(), sizeof(record.data)));
    return Send(record);
}

bool FakeDaemon::Send(const RequestMsg& record)
{
    return TubixSendRequest(fd_, TubixRequest{0, &record, sizeof(record)}) == 0;
}

bool FakeDaemon::SendBytes(const std::string& bytes)
{
    return TubixSendRequest(fd_, TubixRequest{0, bytes.data(), static_cast<uint32_t>(bytes.size())}) == 0;
}

std::unique_ptr<DaemonProcess> RunTool(const Stavik::Test::Sandbox& sandbox, const std::vector<std::string>& args)
{
    // The collector reads standard error, so the tool's output is sent there.
    std::vector<std::string> words = {"-c", "exec \"$0\" \"$@\" </dev/null 1>&2",
                                      Stavik::Test::BuiltProgram("client/stavik-owner")};
    words.insert(words.end(), args.begin(), args.end());
    return std::make_unique<DaemonProcess>("/bin/sh", words,
                                           std::map<std::string, std::string>{{"TUBIX_DIR", sandbox.TubixDir()}});
}

std::vector<json> ToolEvents(const DaemonProcess& tool)
{
    std::vector<json> events;
    for (const std::string& line : tool.Lines()) {
        json event = json::parse(line, nullptr, false);
        if (event.is_object()) {
            events.push_back(event);
        }
    }
    return events;
}

json WaitForEvent(const DaemonProcess& tool, const std::string& event, size_t nth)
{
    json found;
    Stavik::Test::WaitUntil([&] {
        size_t seen = 0;
        for (const json& candidate : ToolEvents(tool)) {
            if (candidate.value("event", "") == event && seen++ == nth) {
                found = candidate;
                return true;
            }
        }
        return false;
    }, TIMEOUT_MS);
    return found;
}

} // namespace OwnerTest
