// START_APP by the state of the record, and the owner's request for an
// application that runs since the boot.
#include "tests/unit/control/control_fixture.h"

namespace Stavik {
namespace ControlTest {
namespace {

using StartRequest = ControlSteps;

std::vector<Message::StartAppInfo> Starts(const std::vector<std::string>& names)
{
    std::vector<Message::StartAppInfo> apps;
    for (const std::string& name : names) {
        apps.push_back({name, {}, {}});
    }
    return apps;
}

// Absent, RUNNING, unknown names and refused dynamic values are covered by
// tests/e2e/control; these cells can't be reached from outside.
TEST_F(StartRequest, StartsATerminatedRecordAndAnswersIntermediateOnes)
{
    OpenPipe("zulmgr");
    Store({Probe("ended"), Probe("starting"), Probe("init"), Broken("broken")});
    AppPtr ended = Live("ended", TERMINATED, 4242);
    Live("starting", STARTING, 4244);
    Live("init", INITSTATE, 0);

    daemon_->StartApp(Starts({"ended", "starting", "init", "broken"}), "ownerB");

    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK : appName=ended, pid=4242, state=TERMINATED is in terminated state, but "
                                   "not remove from generalAppMap yet, so go on"));
    EXPECT_TRUE(IsLive("ended"));
    EXPECT_EQ(STARTING, ended->state_);
    EXPECT_TRUE(Count("Start generalApp success appName=ended, child_pid=" + std::to_string(ended->pid_)));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : appName=starting, pid=4244, state=STARTING is in invalid state"));
    EXPECT_TRUE(Count("STAVIK : StartApp : appName=init, pid=0, state=INITSTATE is in invalid state"));
    EXPECT_EQ(2u, Count("appState=INVALID_INTERMEDIATE_STATE"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : StartProcess failed : appName=broken, pid=0, state=INITSTATE, "));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "broken", 0)));
    EXPECT_FALSE(IsLive("broken"));
    // The start itself is reported later, by the check thread.
    EXPECT_EQ(3u, Count("SK report appState"));
}

TEST_F(StartRequest, PriorityApplicationIsToldToItsOwnerAtOnce)
{
    OpenPipe("ownerA");
    ManifestData early = Probe("early");
    early.startupPriority = 3;
    Store({early, Probe("plain")});
    AppPtr app = Running("early");
    app->isStartedAsPriority_ = true;
    AppPtr plain = Lookup("plain");
    plain->isStartedAsPriority_ = true;

    daemon_->StartApp(Starts({"early", "plain"}), "ownerB");

    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : HandlePriorityApps app=early, pid=" + std::to_string(app->pid_) +
                                ", state=RUNNING to owner=ownerA"));
    EXPECT_TRUE(Count(Reported("ownerA", "RUNNING_NORMAL_START", "early", app->pid_)));
    EXPECT_FALSE(app->isStartedAsPriority_);
    // Without a start-up priority there is nothing to tell, and nothing starts.
    EXPECT_TRUE(Count("STAVIK : HandlePriorityApps app=plain, pid=0, state=INITSTATE to owner=ownerA"));
    EXPECT_FALSE(plain->isStartedAsPriority_);
    EXPECT_FALSE(IsLive("plain"));
    EXPECT_EQ(1u, Count("SK report appState"));
}

} // namespace
} // namespace ControlTest
} // namespace Stavik
