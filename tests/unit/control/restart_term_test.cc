// RESTART_APP and TERM_APP by the state of the record.
#include "tests/unit/control/control_fixture.h"

#include "app/steady_clock.h"

namespace Stavik {
namespace ControlTest {
namespace {

class RestartTerm : public ControlSteps {
protected:
    void Restart(const std::vector<std::string>& names)
    {
        std::vector<Message::RestartAppInfo> apps;
        for (const std::string& name : names) {
            apps.push_back({name, {}, {}});
        }
        daemon_->RestartApp(apps, "ownerB");
    }

    void Term(const std::vector<std::string>& names)
    {
        std::vector<Message::TermAppInfo> apps;
        for (const std::string& name : names) {
            apps.push_back({name});
        }
        daemon_->TermApp(apps, "ownerB");
    }
};

TEST_F(RestartTerm, RestartStartsWhatHasNoProcessAndAnswersTheRest)
{
    OpenPipe("zulmgr");
    Store({Probe("absent"), Probe("ended"), Probe("starting"), Probe("init"), Broken("broken")});
    AppPtr ended = Live("ended", TERMINATED, 4242);
    AppPtr starting = Live("starting", STARTING, 4243);
    Live("init", INITSTATE, 0);
    uint64_t before = SteadyNowNs();

    Restart({"ghost", "absent", "ended", "starting", "init", "broken"});

    EXPECT_EQ(LOG_INFO,
              LevelOf("SK receive RESTART_APP msg from ownerB, appList=ghost,absent,ended,starting,init,broken,"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : RestartApp failed: not find app=ghost"));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_ABNORMAL_EXIT", "ghost", 0)));
    for (const std::string name : {"absent", "ended"}) {
        AppPtr app = Lookup(name);
        EXPECT_TRUE(IsLive(name));
        EXPECT_EQ(RESTARTING, app->state_);
        EXPECT_EQ(1, app->isRestartStarted_);
    }
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RestartApp=absent, pid=" + std::to_string(Lookup("absent")->pid_) +
                                " success, isRemoved=1, isTermminated=0"));
    EXPECT_TRUE(Count("STAVIK : RestartApp=ended, pid=" + std::to_string(ended->pid_) +
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

TEST_F(RestartTerm, TermOfWhatIsGoneOrNeverRanCountsAsSuccess)
{
    OpenPipe("zulmgr");
    Store({Probe("idle"), Probe("removed"), Probe("dead"), Probe("starting"), Probe("terming"), Probe("restarting")});
    Lookup("idle");
    Lookup("removed")->state_ = TERMINATED;
    Lookup("removed")->pid_ = 4241;
    Live("dead", TERMINATED, 4242);
    Live("starting", STARTING, 4243);
    Live("terming", TERMINATING, 4244);
    Live("restarting", RESTARTING, 4245);

    Term({"ghost", "idle", "removed", "dead", "starting", "terming", "restarting"});

    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : termApp failed: not find app=ghost"));
    EXPECT_TRUE(Count("STAVIK : termApp failed: not find app=idle"));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : TermGeneralApp:app=removed is already terminated and removed"));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : TermGeneralApp:app=dead is already terminated but not removed"));
    for (const auto& answered : std::vector<std::pair<std::string, int32_t>>{
             {"ghost", 0}, {"idle", 0}, {"removed", 4241}, {"dead", 4242}}) {
        EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_NORMAL_EXIT", answered.first, answered.second)))
            << answered.first;
    }
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : TermGeneralApp failed: appName=starting, pid=4243, state=STARTING is "
                               "invalid intermediate state"));
    EXPECT_TRUE(Count("appName=terming, pid=4244, state=TERMINATING is invalid intermediate state"));
    EXPECT_TRUE(Count("appName=restarting, pid=4245, state=RESTARTING is invalid intermediate state"));
    EXPECT_EQ(3u, Count("appState=INVALID_INTERMEDIATE_STATE"));
}

TEST_F(RestartTerm, RunningProcessesAreSentSigterm)
{
    Store({Probe("restarted"), Probe("termed"), Probe("pidless")});
    AppPtr restarted = Running("restarted");
    AppPtr termed = Running("termed");
    AppPtr pidless = Live("pidless", RUNNING, 0);
    uint64_t before = SteadyNowNs();

    Restart({"restarted", "pidless"});
    Term({"termed", "pidless"});

    // The old process of a restart may be killed whatever its manifest says.
    EXPECT_EQ(RESTARTING, restarted->state_);
    EXPECT_EQ(0, restarted->isRestartStarted_);
    EXPECT_TRUE(restarted->isForceTerm_);
    EXPECT_FALSE(restarted->savedForceTerm_);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RestartApp set RESTARTING state finished(when app was running before):"
                                "appName=restarted, pid=" + std::to_string(restarted->pid_) + ", state=RESTARTING"));
    EXPECT_TRUE(EndsBySigterm(restarted->pid_));
    EXPECT_EQ(TERMINATING, termed->state_);
    EXPECT_GE(termed->termBeginTime_, before);
    EXPECT_TRUE(EndsBySigterm(termed->pid_));
    // A failed term keeps the state and the swapped force flags, and is not answered.
    EXPECT_EQ(LOG_ERR,
              LevelOf("STAVIK : RestartApp failed: TermProcess failed : appName=pidless pid=0, state=RUNNING"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : TermGeneralApp failed: TermProcess failed: appName=pidless, pid=0, "
                               "state=RUNNING)"));
    EXPECT_EQ(RUNNING, pidless->state_);
    EXPECT_TRUE(pidless->isForceTerm_);
    EXPECT_EQ(0u, Count("report general apps' changes"));
}

} // namespace
} // namespace ControlTest
} // namespace Stavik
