// The owner tool against a daemon side played by the test: text bodies are
// checked byte for byte, the others read back with the daemon's own readers.
#include <signal.h>

#include "channel/serialization.h"
#include "owner_test_env.h"

namespace OwnerTest {
namespace {

using namespace Stavik::Message;
using namespace Stavik::Serialization;

class OwnerToolTest : public OwnerTestBase {};

std::string Body(const RequestMsg& msg)
{
    return std::string(msg.data, BodySize(msg));
}

TEST_F(OwnerToolTest, SendsTheCommandLineRequestsInOrderOnceTheDaemonConnects)
{
    auto tool = RunTool(*sandbox_, {"--name", "svc",
        "--request", R"({"type":"start","apps":[{"name":"a","argv":["-v","x y"],
                        "dynamic":{"0":["/bin/x"],"2":["K=V","L=W"]}},{"name":"b"}]})",
        "--request", R"({"type":"restart","apps":[{"name":"c","argv":["1"]}]})",
        "--request", R"({"type":"term","apps":["a","b"]})",
        "--request", R"({"type":"state","state":"RUNNING"})",
        "--request", R"({"type":"exec","appName":"e","pid":42,"gid":7,"state":"TERMINATED"})",
        "--request", R"({"type":"query","apps":["a","bb"]})",
        "--request", R"({"type":"raw","msgType":8,"body":"hello","size":5000})",
        "--request", R"({"type":"raw-bytes","length":100})"});
    EXPECT_EQ(WaitForEvent(*tool, "listening")["name"], "svc");
    FakeDaemon daemon;
    ASSERT_TRUE(daemon.Open("svc"));
    json connected = WaitForEvent(*tool, "connected");
    EXPECT_EQ(connected["client"], "STAVIK");
    EXPECT_GT(connected["fd"].get<int>(), 0);
    ASSERT_TRUE(daemon.WaitForMessages(8));

    // The text bodies byte for byte; the daemon's unpackers read them in the wire tests.
    const std::pair<uint32_t, const char*> texts[] = {
        {START_APP, "2#a#2#-v#x y#2#0#1#/bin/x#2#2#K=V#L=W#b#0#0#"},
        {RESTART_APP, "1#c#1#1#0#"},
        {TERM_APP, "2#a#b#"},
        {BASESERVICE_STATE_REPORT, "1#2#"},
        {APP_EXECUTION_REPORT, "1#e#42#7#1#"},
    };
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(daemon.Record(i).type, texts[i].first) << i;
        EXPECT_EQ(Body(daemon.Record(i)), texts[i].second) << i;
    }
    std::vector<std::string> queried;
    EXPECT_TRUE(ReadQueryAppStateBody(daemon.Record(5), queried));
    EXPECT_EQ(queried, (std::vector<std::string>{"a", "bb"}));
    EXPECT_EQ(daemon.Record(6).type, 8u);
    EXPECT_EQ(daemon.Record(6).size, 5000u);
    EXPECT_EQ(std::string(daemon.Record(6).data), "hello");
    EXPECT_EQ(daemon.Messages()[7], std::string(100, '\0'));

    EXPECT_EQ(WaitForEvent(*tool, "sent", 7)["request"]["type"], "raw-bytes");
    EXPECT_EQ(WaitForEvent(*tool, "sent", 0)["request"]["type"], "start");
    tool->Signal(SIGTERM);
    EXPECT_EQ(tool->WaitExit(TIMEOUT_MS), 0);
}

TEST_F(OwnerToolTest, PrintsEveryRecordTheDaemonSendsAndTheDisconnect)
{
    auto tool = RunTool(*sandbox_, {"--name", "svc"});
    FakeDaemon daemon;
    ASSERT_TRUE(daemon.Open("svc"));
    ASSERT_TRUE(daemon.SendReport({{"a", 10, 20, 0, 0}, {"bee", 11, 21, 4, 2}}));
    ASSERT_TRUE(daemon.SendDetail({{"a", DETAIL_STATUS_ALIVE}, {"zz", DETAIL_STATUS_ABSENT}}));
    ASSERT_TRUE(daemon.SendRecord(8, "free"));
    ASSERT_TRUE(daemon.SendRecord(REPORT_APP_STATE, "1#a#x#"));
    ASSERT_TRUE(daemon.SendBytes(std::string(100, 'q')));
    daemon.Close();

    json report = WaitForEvent(*tool, "report");
    EXPECT_EQ(report["type"], "REPORT_APP_STATE");
    EXPECT_EQ(report["count"], 2);
    json bee = report["apps"][0]["appName"] == "bee" ? report["apps"][0] : report["apps"][1];
    EXPECT_EQ(bee, json::parse(R"({"appName":"bee","pid":11,"gid":21,"state":4,
                                  "stateName":"TERMINATED_ABNORMAL_EXIT","reason":2})"));
    EXPECT_EQ(WaitForEvent(*tool, "detail")["apps"], json::parse(R"({"a":0,"zz":1})"));
    json record = WaitForEvent(*tool, "record");
    EXPECT_EQ(record["type"], 8);
    EXPECT_EQ(record["size"], 4);
    json badReport = WaitForEvent(*tool, "bad-record", 0);
    EXPECT_EQ(badReport["type"], REPORT_APP_STATE);
    EXPECT_TRUE(badReport.contains("message"));
    json notRecord = WaitForEvent(*tool, "bad-record", 1);
    EXPECT_EQ(notRecord["length"], 100);
    EXPECT_FALSE(notRecord.contains("type"));
    EXPECT_FALSE(WaitForEvent(*tool, "disconnected").is_null());
}

} // namespace
} // namespace OwnerTest
