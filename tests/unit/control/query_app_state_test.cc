// QUERY_APP_STATE answers, one status per name.
#include "tests/unit/control/control_fixture.h"

#include "tests/support/service_manifest.h"

namespace Stavik {
namespace ControlTest {
namespace {

using QueryAppState = ControlSteps;

TEST_F(QueryAppState, TellsAliveAbsentAndStoppedPerName)
{
    Client::OwnerSession& session = OpenPipe("ownerA");
    Store({Probe("alive"), Probe("stopped")});
    Running("alive");
    AppPtr stopped = Running("stopped");
    ASSERT_GT(stopped->pid_, 0);
    kill(stopped->pid_, SIGSTOP);
    ASSERT_TRUE(Support::WaitUntil([&] { return Support::ChildrenOf(getpid())[stopped->pid_] == 'T'; }));

    daemon_->QueryAppState({"alive", "absent", "stopped", "alive"}, "ownerA");

    EXPECT_EQ(LOG_DEBUG, LevelOf("SK receive QUERY_APP_STATE msg from ownerA, appList=alive,absent,stopped,alive"));
    EXPECT_EQ(LOG_DEBUG, LevelOf("SK finish QUERY_APP_STATE request from ownerA"));
    auto isDetail = [](const Client::OwnerEvent& event) { return event.kind == Client::OwnerEvent::Kind::DETAIL; };
    auto detail = session.WaitFor(isDetail, 10000);
    ASSERT_TRUE(detail.has_value());
    EXPECT_EQ((Message::AppDetailStatusMap{{"absent", 1}, {"alive", 0}, {"stopped", 2}}), detail->detail);

    // An empty query is still logged, and sends nothing.
    LogCapture::Begin();
    daemon_->QueryAppState({}, "ownerA");
    EXPECT_TRUE(Count("SK receive QUERY_APP_STATE msg from ownerA, appList="));
    EXPECT_TRUE(Count("SK finish QUERY_APP_STATE request from ownerA"));
    EXPECT_EQ(0u, Count("ReportAppDetailStatus"));
}

} // namespace
} // namespace ControlTest
} // namespace Stavik
