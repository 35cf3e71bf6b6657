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

TEST_F(StartRequest, StartsWhatHasNoProcessAndAnswersTheRest)
{
    OpenPipe("zulmgr");
    ManifestData dynamic = Probe("${dyn_*}");
    dynamic.isDynamicPara = true;
    dynamic.binPath = "${/opt/*}";
    Store({Probe("fresh"), Probe("ended"), Probe("run"), Probe("starting"), Probe("init"), Broken("broken"), dynamic});
    AppPtr ended = Live("ended", TERMINATED, 4242);
    Live("run", RUNNING, 4243);
    Live("starting", STARTING, 4244);
    Live("init", INITSTATE, 0);

    daemon_->StartApp(Starts({"fresh", "ended", "run", "starting", "init", "broken", "dyn_1"}), "ownerB");

    EXPECT_EQ(LOG_INFO, LevelOf("SK receive START_APP msg from ownerB, appList=fresh,ended,run,starting,init,broken,"
                                "dyn_1,"));
    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK : appName=ended, pid=4242, state=TERMINATED is in terminated state, but "
                                   "not remove from generalAppMap yet, so go on"));
    for (const AppPtr& app : {Lookup("fresh"), ended}) {
        EXPECT_TRUE(IsLive(app->appName_));
        EXPECT_EQ(STARTING, app->state_);
        EXPECT_TRUE(Count("Start generalApp success appName=" + app->appName_ + ", child_pid=" +
                          std::to_string(app->pid_)));
    }
    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK : StartApp : appName=run, pid=4243 is already running"));
    EXPECT_TRUE(Count(Reported("zulmgr", "RUNNING_NORMAL_START", "run", 4243)));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : appName=starting, pid=4244, state=STARTING is in invalid state"));
    EXPECT_TRUE(Count("STAVIK : StartApp : appName=init, pid=0, state=INITSTATE is in invalid state"));
    EXPECT_EQ(2u, Count("appState=INVALID_INTERMEDIATE_STATE"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : StartProcess failed : appName=broken, pid=0, state=INITSTATE, "));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp failed : appName=dyn_1, dynamic para invalid"));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "broken", 0)));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "dyn_1", 0)));
    EXPECT_FALSE(IsLive("broken"));
    EXPECT_FALSE(IsLive("dyn_1"));
    // The start itself is reported later, by the check thread; the record keeps its first owner.
    EXPECT_EQ(5u, Count("SK report appState"));
    EXPECT_EQ("ownerA", Lookup("run")->ownerName_);
}

TEST_F(StartRequest, UnknownNameEndsTheRequestAndDropsItsAnswers)
{
    OpenPipe("zulmgr");
    Store({Probe("run"), Probe("third")});
    Live("run", RUNNING, 4242);

    daemon_->StartApp(Starts({"run", "ghost", "third"}), "ownerA");

    EXPECT_TRUE(Count("STAVIK : StartApp : appName=run, pid=4242 is already running"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp: appName=ghost is null"));
    EXPECT_FALSE(IsLive("third"));
    EXPECT_EQ(0u, Count("SK report appState"));
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
