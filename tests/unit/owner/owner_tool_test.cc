// The owner tool against a daemon side played by the test: text bodies are
// checked byte for byte, the others read back with the daemon's own readers.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>

#include "channel/serialization.h"
#include "tests/helpers/ipc_shared.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"
#include "tubix.h"

namespace OwnerTest {
namespace {

using namespace Stavik::Message;
using namespace Stavik::Serialization;
using json = nlohmann::json;
using Stavik::Test::DaemonProcess;
constexpr int TIMEOUT_MS = 10000;

// What the daemon's end of an owner pipe received. It lives as long as the
// program, so that a callback still running while the pipe closes is harmless.
struct Inbox {
    std::mutex mutex;
    std::vector<std::string> texts;
};
Inbox inbox;

std::vector<std::string> Texts()
{
    std::lock_guard<std::mutex> guard(inbox.mutex);
    return inbox.texts;
}

// Message i read as a record.
RequestMsg Record(size_t index)
{
    RequestMsg msg{};
    std::vector<std::string> texts = Texts();
    if (index < texts.size() && texts[index].size() == sizeof(msg)) {
        memcpy(&msg, texts[index].data(), sizeof(msg));
    }
    return msg;
}

// The nth (from 0) JSON line of this event, waiting for it; null when it didn't come.
json WaitForEvent(const DaemonProcess& tool, const std::string& event, size_t nth = 0)
{
    json found;
    Stavik::Test::WaitUntil([&] {
        size_t seen = 0;
        for (const std::string& line : tool.Lines()) {
            json candidate = json::parse(line, nullptr, false);
            if (candidate.is_object() && candidate.value("event", "") == event && seen++ == nth) {
                found = candidate;
                return true;
            }
        }
        return false;
    }, TIMEOUT_MS);
    return found;
}

// The test process speaks as the daemon ("STAVIK"); the collector reads the
// tool's standard error, so its output is sent there.
TEST(OwnerTool, SendsTheCommandLineRequestsInOrderOnceTheDaemonConnects)
{
    Stavik::Test::Sandbox sandbox;
    setenv("TUBIX_DIR", sandbox.TubixDir().c_str(), 1);
    setenv("PROC_NAME", "STAVIK", 1);
    DaemonProcess tool("/bin/sh", {"-c", "exec \"$0\" \"$@\" </dev/null 1>&2",
        Stavik::Test::BuiltProgram("client/stavik-owner"), "--name", "svc",
        "--request", R"({"type":"start","apps":[{"name":"a","argv":["-v","x y"],
                        "dynamic":{"0":["/bin/x"],"2":["K=V","L=W"]}},{"name":"b"}]})",
        "--request", R"({"type":"restart","apps":[{"name":"c","argv":["1"]}]})",
        "--request", R"({"type":"term","apps":["a","b"]})",
        "--request", R"({"type":"state","state":"RUNNING"})",
        "--request", R"({"type":"exec","appName":"e","pid":42,"gid":7,"state":"TERMINATED"})",
        "--request", R"({"type":"query","apps":["a","bb"]})",
        "--request", R"({"type":"raw","msgType":8,"body":"hello","size":5000})"},
        {{"TUBIX_DIR", sandbox.TubixDir()}});
    EXPECT_EQ(WaitForEvent(tool, "listening")["name"], "svc");
    // The daemon's end, opened as the daemon does.
    const int32_t fd = IpcShared::OpenPipe("svc", [](int32_t, const TubixRequest* req) {
        if (req != nullptr) {
            std::lock_guard<std::mutex> guard(inbox.mutex);
            inbox.texts.emplace_back(static_cast<const char*>(req->data), req->size);
        }
    }, TIMEOUT_MS);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(WaitForEvent(tool, "connected")["client"], "STAVIK");
    ASSERT_TRUE(Stavik::Test::WaitUntil([&] { return Texts().size() >= 7; }, TIMEOUT_MS));

    // The text bodies byte for byte; the daemon's unpackers read them in the wire tests.
    const std::pair<uint32_t, const char*> texts[] = {
        {START_APP, "2#a#2#-v#x y#2#0#1#/bin/x#2#2#K=V#L=W#b#0#0#"},
        {RESTART_APP, "1#c#1#1#0#"},
        {TERM_APP, "2#a#b#"},
        {BASESERVICE_STATE_REPORT, "1#2#"},
        {APP_EXECUTION_REPORT, "1#e#42#7#1#"},
    };
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(Record(i).type, texts[i].first) << i;
        EXPECT_EQ(std::string(Record(i).data, BodySize(Record(i))), texts[i].second) << i;
    }
    std::vector<std::string> queried;
    EXPECT_TRUE(ReadQueryAppStateBody(Record(5), queried));
    EXPECT_EQ(queried, (std::vector<std::string>{"a", "bb"}));
    EXPECT_EQ(Record(6).type, 8u);
    EXPECT_EQ(Record(6).size, 5000u);
    EXPECT_EQ(std::string(Record(6).data), "hello");
    EXPECT_EQ(WaitForEvent(tool, "sent", 6)["request"]["type"], "raw");
    tool.Signal(SIGTERM);
    EXPECT_EQ(tool.WaitExit(TIMEOUT_MS), 0);
    TubixClosePipe(fd);
    unsetenv("PROC_NAME");
    unsetenv("TUBIX_DIR");
}

} // namespace
} // namespace OwnerTest
