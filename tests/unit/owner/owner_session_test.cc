// The owner client API in this process, against a daemon side played by the test.
#include "channel/serialization.h"
#include "client/owner_session.h"
#include "owner_test_env.h"

namespace OwnerTest {
namespace {

using namespace Stavik::Message;
using Stavik::Client::OwnerEvent;
using Stavik::Client::OwnerSession;

class OwnerSessionTest : public OwnerTestBase {};

TEST_F(OwnerSessionTest, KeepsEventsInArrivalOrderAndWaitsOnlyAsLongAsAsked)
{
    std::mutex heardMutex;
    std::vector<size_t> heard;
    OwnerSession session("svc");
    session.SetListener([&](const OwnerEvent& event) {
        std::lock_guard<std::mutex> guard(heardMutex);
        heard.push_back(event.index);
    });
    ASSERT_TRUE(session.Start()) << session.LastError();
    EXPECT_FALSE(session.WaitForDaemon(20));
    EXPECT_FALSE(session.SendTerm({"a"}));
    EXPECT_EQ(session.LastError(), "no pipe from the daemon");

    FakeDaemon daemon;
    daemon.Answer(LOAD_STARTUP_CFG, "0");
    ASSERT_TRUE(daemon.Open("svc"));
    ASSERT_TRUE(session.WaitForDaemon(TIMEOUT_MS));
    EXPECT_GT(session.DaemonFd(), 0);
    ASSERT_TRUE(session.SendStart({{"a", {"-x"}, {{0, {"/bin/a"}}}}})) << session.LastError();
    std::string answer;
    ASSERT_TRUE(session.LoadStartupCfg({{{"k", "v"}}, "/etc/a.yaml"}, answer)) << session.LastError();
    EXPECT_EQ(answer, "0");
    ASSERT_TRUE(daemon.WaitForMessages(2));
    std::vector<StartAppInfo> started;
    Stavik::Serialization::StavikUnpackStartRequest(daemon.Record(0), started, "svc");
    ASSERT_EQ(started.size(), 1u);
    EXPECT_EQ(started[0].dynamicPara.at(0), std::vector<std::string>{"/bin/a"});

    ASSERT_TRUE(daemon.SendReport({{"a", 5, 0, 0, 0}}));
    ASSERT_TRUE(session.WaitForAppState("a", 0, TIMEOUT_MS));
    size_t mark = session.EventCount();
    ASSERT_TRUE(daemon.SendDetail({{"a", DETAIL_STATUS_STOPPED}}));
    ASSERT_TRUE(daemon.SendReport({{"a", 5, 0, 3, 0}}));
    EXPECT_FALSE(session.WaitForAppState("a", 0, 50, mark));
    auto terminated = session.WaitForAppState("a", 3, TIMEOUT_MS, mark);
    ASSERT_TRUE(terminated);
    EXPECT_EQ(terminated->pid, 5u);

    std::vector<OwnerEvent> events = session.Events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].kind, OwnerEvent::Kind::CONNECTED);
    EXPECT_EQ(events[2].kind, OwnerEvent::Kind::DETAIL);
    EXPECT_EQ(events[2].detail.at("a"), DETAIL_STATUS_STOPPED);
    {
        std::lock_guard<std::mutex> guard(heardMutex);
        EXPECT_EQ(heard, (std::vector<size_t>{0, 1, 2, 3}));
    }
    std::vector<AppStateInfo> reports = session.Reports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[1].state, 3u);

    daemon.Close();
    ASSERT_TRUE(session.WaitFor([](const OwnerEvent& event) { return event.kind == OwnerEvent::Kind::DISCONNECTED; },
                                TIMEOUT_MS));
    EXPECT_EQ(session.DaemonFd(), -1);
    EXPECT_FALSE(session.SendQuery({"a"}));
}

TEST_F(OwnerSessionTest, SeveralOwnersInOneProcessEachGetTheirOwnPipeAndAnOwnerCanComeBack)
{
    OwnerSession zul("zulmgr");
    auto svc = std::make_unique<OwnerSession>("svc");
    ASSERT_TRUE(zul.Start() && svc->Start()) << zul.LastError() << svc->LastError();
    OwnerSession twin("svc");
    EXPECT_FALSE(twin.Start());

    FakeDaemon toZul;
    FakeDaemon toSvc;
    ASSERT_TRUE(toZul.Open("zulmgr") && toSvc.Open("svc"));
    ASSERT_TRUE(zul.WaitForDaemon(TIMEOUT_MS) && svc->WaitForDaemon(TIMEOUT_MS));
    ASSERT_TRUE(zul.SendStart({{"z", {"1"}, {}}}));
    ASSERT_TRUE(toZul.WaitForMessages(1));
    EXPECT_EQ(std::string(toZul.Record(0).data, BodySize(toZul.Record(0))), "1#z#1#1#");
    ASSERT_TRUE(toSvc.SendReport({{"s", 1, 1, 0, 0}}));
    ASSERT_TRUE(svc->WaitForAppState("s", 0, TIMEOUT_MS));
    EXPECT_TRUE(zul.Reports().empty());

    // The owner goes and comes back under the same name.
    svc.reset();
    toSvc.Close();
    OwnerSession again("svc");
    ASSERT_TRUE(again.Start()) << again.LastError();
    FakeDaemon toAgain;
    ASSERT_TRUE(toAgain.Open("svc"));
    ASSERT_TRUE(again.WaitForDaemon(TIMEOUT_MS));
    ASSERT_TRUE(toAgain.SendReport({{"s2", 2, 2, 0, 0}}));
    ASSERT_TRUE(again.WaitForAppState("s2", 0, TIMEOUT_MS));
}

} // namespace
} // namespace OwnerTest
