// START_APP, RESTART_APP and TERM_APP by the state of the record. Unknown,
// absent, RUNNING, TERMINATING and RESTARTING records, unknown names and
// refused dynamic values are covered by tests/e2e/control; these cells can't
// be reached from outside.
#include "tests/unit/control/control_fixture.h"

#include "app/steady_clock.h"

namespace Stavik {
namespace ControlTest {
namespace {

class RequestCells : public ControlSteps {
protected:
    // Records of these names for a request of ownerB.
    using Names = std::vector<std::string>;

    template <typename Info>
    static std::vector<Info> Named(const Names& names)
    {
        std::vector<Info> apps(names.size());
        for (size_t i = 0; i < names.size(); ++i) {
            apps[i].appName = names[i];
        }
        return apps;
    }

    void Start(const Names& names) { daemon_->StartApp(Named<Message::StartAppInfo>(names), "ownerB"); }
    void Restart(const Names& names) { daemon_->RestartApp(Named<Message::RestartAppInfo>(names), "ownerB"); }
    void Term(const Names& names) { daemon_->TermApp(Named<Message::TermAppInfo>(names), "ownerB"); }

    // A terminated, a starting, an unstarted and an unstartable record.
    AppPtr StoreFourStates()
    {
        OpenPipe("zulmgr");
        Store({Probe("ended"), Probe("starting"), Probe("init"), Broken("broken")});
        Live("starting", STARTING, 4243);
        Live("init", INITSTATE, 0);
        return Live("ended", TERMINATED, 4242);
    }
};

TEST_F(RequestCells, StartStartsATerminatedRecordAndAnswersIntermediateOnes)
{
    AppPtr ended = StoreFourStates();
    Start({"ended", "starting", "init", "broken"});

    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK : appName=ended, pid=4242, state=TERMINATED is in terminated state, but "
                                   "not remove from generalAppMap yet, so go on"));
    EXPECT_TRUE(IsLive("ended"));
    EXPECT_EQ(STARTING, ended->state_);
    EXPECT_TRUE(Count("Start generalApp success appName=ended, child_pid=" + std::to_string(ended->pid_)));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : appName=starting, pid=4243, state=STARTING is in invalid state"));
    EXPECT_TRUE(Count("STAVIK : StartApp : appName=init, pid=0, state=INITSTATE is in invalid state"));
    EXPECT_EQ(2u, Count("appState=INVALID_INTERMEDIATE_STATE"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : StartApp : StartProcess failed : appName=broken, pid=0, state=INITSTATE, "));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "broken", 0)));
    EXPECT_FALSE(IsLive("broken"));
    // The start itself is reported later, by the check thread.
    EXPECT_EQ(3u, Count("SK report appState"));
}

TEST_F(RequestCells, RestartStartsATerminatedRecordAndAnswersIntermediateOnes)
{
    AppPtr ended = StoreFourStates();
    AppPtr starting = Lookup("starting");
    uint64_t before = SteadyNowNs();
    Restart({"ended", "starting", "init", "broken"});

    EXPECT_TRUE(IsLive("ended"));
    EXPECT_EQ(RESTARTING, ended->state_);
    EXPECT_EQ(1, ended->isRestartStarted_);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RestartApp=ended, pid=" + std::to_string(ended->pid_) +
                                " success, isRemoved=0, isTermminated=1"));
    // A refusal still marks the time of the request.
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : RestartApp failed: StartProcess : appName=starting, pid=4243, "
                               "state=STARTING is invalid intermediate state"));
    EXPECT_GE(starting->termBeginTime_, before);
    EXPECT_EQ(STARTING, starting->state_);
    EXPECT_TRUE(Count("appName=init, pid=0, state=INITSTATE is invalid intermediate state"));
    EXPECT_EQ(2u, Count("appState=INVALID_INTERMEDIATE_STATE"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : RestartApp failed: StartProcess failed appName=broken, pid=0"));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "broken", 0)));
    EXPECT_FALSE(IsLive("broken"));
}

TEST_F(RequestCells, TermOfATerminatedRecordSucceedsOfAStartingOneIsInvalidAndAFailedOneIsNotAnswered)
{
    OpenPipe("zulmgr");
    Store({Probe("dead"), Probe("starting"), Probe("pidless")});
    Live("dead", TERMINATED, 4242);
    Live("starting", STARTING, 4243);
    Term({"dead", "starting"});

    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : TermGeneralApp:app=dead is already terminated but not removed"));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_NORMAL_EXIT", "dead", 4242)));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : TermGeneralApp failed: appName=starting, pid=4243, state=STARTING is "
                               "invalid intermediate state"));
    EXPECT_EQ(1u, Count("appState=INVALID_INTERMEDIATE_STATE"));

    // A failed term keeps the state and the force flag the restart swapped in.
    AppPtr pidless = Live("pidless", RUNNING, 0);
    const size_t reports = Count("report general apps' changes");
    Restart({"pidless"});
    Term({"pidless"});
    EXPECT_EQ(LOG_ERR,
              LevelOf("STAVIK : RestartApp failed: TermProcess failed : appName=pidless pid=0, state=RUNNING"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : TermGeneralApp failed: TermProcess failed: appName=pidless, pid=0, "
                               "state=RUNNING)"));
    EXPECT_EQ(RUNNING, pidless->state_);
    EXPECT_TRUE(pidless->isForceTerm_);
    EXPECT_EQ(reports, Count("report general apps' changes"));
}

TEST_F(RequestCells, PriorityApplicationIsToldToItsOwnerAtOnce)
{
    OpenPipe("ownerA");
    ManifestData early = Probe("early");
    early.startupPriority = 3;
    Store({early, Probe("plain")});
    AppPtr app = Live("early", INITSTATE, 0);
    ASSERT_TRUE(app->StartProcess());
    app->state_ = RUNNING;
    app->isStartedAsPriority_ = true;
    AppPtr plain = Lookup("plain");
    plain->isStartedAsPriority_ = true;

    Start({"early", "plain"});

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
