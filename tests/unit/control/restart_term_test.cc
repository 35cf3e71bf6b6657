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

// Unknown, absent, RUNNING, TERMINATING and RESTARTING records are covered by
// tests/e2e/control; these cells can't be reached from outside.
TEST_F(RestartTerm, RestartStartsATerminatedRecordAndAnswersIntermediateOnes)
{
    OpenPipe("zulmgr");
    Store({Probe("ended"), Probe("starting"), Probe("init"), Broken("broken")});
    AppPtr ended = Live("ended", TERMINATED, 4242);
    AppPtr starting = Live("starting", STARTING, 4243);
    Live("init", INITSTATE, 0);
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

TEST_F(RestartTerm, TermOfATerminatedRecordSucceedsAndOfAStartingOneIsInvalid)
{
    OpenPipe("zulmgr");
    Store({Probe("dead"), Probe("starting")});
    Live("dead", TERMINATED, 4242);
    Live("starting", STARTING, 4243);

    Term({"dead", "starting"});

    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : TermGeneralApp:app=dead is already terminated but not removed"));
    EXPECT_TRUE(Count(Reported("zulmgr", "TERMINATED_NORMAL_EXIT", "dead", 4242)));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : TermGeneralApp failed: appName=starting, pid=4243, state=STARTING is "
                               "invalid intermediate state"));
    EXPECT_EQ(1u, Count("appState=INVALID_INTERMEDIATE_STATE"));
}

TEST_F(RestartTerm, FailedTermKeepsTheStateAndTheSwappedForceFlagAndIsNotAnswered)
{
    Store({Probe("pidless")});
    AppPtr pidless = Live("pidless", RUNNING, 0);

    Restart({"pidless"});
    Term({"pidless"});

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
