// Check steps over the transition table, driven by real wait statuses, with
// termBeginTime_ moved into the past instead of waiting.
#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/steady_clock.h"
#include "app/terminated_reason.h"
#include "core/log.h"
#include "tests/unit/app/app_test_util.h"
#include "tests/unit/app_start/child_probe.h"

namespace Stavik {
namespace App {
namespace {

namespace Support = Stavik::Test;
using AppTest::LevelOf;

ManifestData Data(const std::string& restart = "on-failure")
{
    ManifestData data;
    data.appName = "sm";
    data.binPath = Support::BuiltProgram("tests/probe_child");
    data.restart = restart;
    data.gid = 77;
    data.termTimeOut = 1000;
    return data;
}

GeneralAppInfo General(ProcessState state, int32_t pid, const ManifestData& data = Data(),
                       const std::string& owner = "ownerX")
{
    GeneralAppInfo app("sm", ApplicationManifest(data), owner);
    app.state_ = state;
    app.pid_ = pid;
    return app;
}

BaseAppInfo Base(ProcessState state, int32_t pid, bool isReporting = false)
{
    ManifestData data = Data();
    data.isReporting = isReporting;
    BaseAppInfo app{ApplicationManifest(data)};
    app.state_ = state;
    app.pid_ = pid;
    return app;
}

// A record whose process ended with status, after one check step.
GeneralAppInfo DiedWith(int status, const ManifestData& data = Data(), const std::string& owner = "ownerX")
{
    GeneralAppInfo app = General(RUNNING, 300, data, owner);
    app.SetExitStatus(status);
    app.state_ = app.CheckState();
    return app;
}

void TermTimedOut(GeneralAppInfo& app)
{
    app.termBeginTime_ = SteadyNowNs() - 2000000000ULL;
}

class StateMachineTest : public ::testing::Test {
protected:
    void SetUp() override { LogCapture::Begin(); }
    void TearDown() override { LogCapture::End(); }

    Support::ChildMsgPipe pipe_;
};

TEST_F(StateMachineTest, StepsWithoutASignalFollowTheExitStatusTheOwnerAndTheRecord)
{
    GeneralAppInfo started = General(STARTING, 100);
    EXPECT_EQ(started.CheckState(), RUNNING);
    EXPECT_EQ(started.reportState_, RUNNING_NORMAL_START);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : STARTING to RUNNING appName=sm, pid=100"));
    EXPECT_EQ(Base(STARTING, 101, true).CheckState(), STARTING);

    // An unrequested end is abnormal, exit code 0 included.
    BaseAppInfo ended = Base(RUNNING, 103);
    ended.SetExitStatus(W_EXITCODE(0, 0));
    EXPECT_EQ(ended.CheckState(), TERMINATED);
    EXPECT_EQ(ended.reportState_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RUNNING to TERMINATED appName=sm, pid=103"));

    // Only a good end of a run-once application of the naming service is normal.
    EXPECT_EQ(DiedWith(W_EXITCODE(0, 0), Data("on-until-succeed"), "zulmgr").reportState_, TERMINATED_NORMAL_EXIT);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : non resident app=sm normal exit"));
    EXPECT_EQ(DiedWith(W_EXITCODE(1, 0), Data("on-until-succeed"), "zulmgr").reportState_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_EQ(DiedWith(W_EXITCODE(0, 0), Data("on-until-succeed"), "ownerX").reportState_, TERMINATED_ABNORMAL_EXIT);

    // A dead base record is reported as newly dead at every step.
    BaseAppInfo dead = Base(TERMINATED, 700);
    EXPECT_EQ(dead.CheckState(), TERMINATED);
    EXPECT_EQ(dead.reportState_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_EQ(LogCapture::Count("STAVIK : Process sm got unexpected TERMINATED state"), 1u);

    // A dead general record keeps the verdict of its death.
    GeneralAppInfo settled = General(TERMINATED, 701);
    settled.reportState_ = TERMINATED_NORMAL_EXIT;
    EXPECT_EQ(settled.CheckState(), TERMINATED);
    EXPECT_EQ(settled.reportState_, TERMINATED_NORMAL_EXIT);

    BaseAppInfo stopping = Base(TERMINATING, 702);
    EXPECT_EQ(stopping.CheckState(), TERMINATING);
    stopping.SetExitStatus(SIGTERM);
    EXPECT_EQ(stopping.CheckState(), TERMINATED);
    EXPECT_EQ(stopping.reportState_, TERMINATED_NORMAL_EXIT);
    EXPECT_EQ(1u, LogCapture::Count("STAVIK : Process=sm, pid=702 terminated by calling Term(), signal=15"));

    EXPECT_EQ(General(INITSTATE, 703).CheckState(), INITSTATE);
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : Process sm got unexpected state=0"));

    GeneralAppInfo unstarted = General(STARTING, 0);
    unstarted.reportState_ = RUNNING_ABNORMAL_TERM_TIMEOUT;
    EXPECT_EQ(unstarted.CheckState(), STARTING);
    EXPECT_EQ(unstarted.reportState_, RUNNING_ABNORMAL_TERM_TIMEOUT);
    EXPECT_EQ(LOG_ERR, LevelOf("CheckState : pid <= 0, don't call waitpid(), currentState=1"));
}

TEST_F(StateMachineTest, DeathIsLoggedAndGivesItsReason)
{
    const std::string who = "STAVIK : Process=sm, pid=300 ";
    const std::string io = "STAVIK: appName=sm, pid=77, terminated as input/output error";
    const std::string core = "STAVIK: appName=sm, pid=77, terminated as coredump error";
    struct Case {
        int status;
        int level;
        std::string line;
        uint32_t reason;
        std::string reasonLine;
    };
    const Case cases[] = {
        {W_EXITCODE(3, 0), LOG_WARNING, who + "was self terminated, the exit status is 3.", REASON_NONE, ""},
        {W_EXITCODE(125, 0), LOG_WARNING, who + "was self terminated, the exit status is 125.", REASON_IO_ERROR, io},
        {SIGSEGV, LOG_ERR, who + "got unexpected signal=11", REASON_COREDUMP, core},
        {SIGSEGV | WCOREFLAG, LOG_ERR, "STAVIK: Process=sm, pid=300 was coredump", REASON_COREDUMP, core},
        {SIGKILL, LOG_WARNING, who + "terminated by calling Kill(), signal=9", REASON_NONE, ""},
        {SIGTERM, LOG_WARNING, who + "terminated by calling Term(), signal=15", REASON_NONE, ""},
        {W_STOPCODE(SIGSTOP), LOG_WARNING, who + "was unexpectedly terminated", REASON_NONE, ""},
    };
    for (const Case& c : cases) {
        LogCapture::Begin();
        GeneralAppInfo app = DiedWith(c.status);
        EXPECT_EQ(app.state_, TERMINATED);
        EXPECT_EQ(c.level, LevelOf(c.line)) << c.line;
        LogCapture::Begin();
        EXPECT_EQ(GetTerminatedReason(app), c.reason) << c.line;
        EXPECT_EQ(LogCapture::Lines().size(), c.reasonLine.empty() ? 0u : 1u) << c.line;
        EXPECT_EQ(LevelOf(c.reasonLine), c.reasonLine.empty() ? -1 : LOG_ERR) << c.line;
    }

    // Each signal that dumps core, and two that don't.
    for (int signal : {SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGXCPU, SIGXFSZ, SIGSYS, SIGHUP, SIGUSR1}) {
        EXPECT_EQ(GetTerminatedReason(DiedWith(signal)), signal == SIGHUP || signal == SIGUSR1 ? REASON_NONE
                                                                                                : REASON_COREDUMP)
            << signal;
    }
}

TEST_F(StateMachineTest, TerminatingWaitsThenGivesUpOrKillsOnce)
{
    const pid_t stubborn = Support::SleepingChild();
    GeneralAppInfo keep = General(TERMINATING, stubborn);
    keep.termBeginTime_ = SteadyNowNs();
    EXPECT_EQ(keep.CheckState(), TERMINATING);
    EXPECT_EQ(keep.reportState_, INVALID_INTERMEDIATE_STATE);
    // Without force the process stays, and the owners are told.
    TermTimedOut(keep);
    EXPECT_EQ(keep.CheckState(), RUNNING);
    EXPECT_EQ(keep.reportState_, RUNNING_ABNORMAL_TERM_TIMEOUT);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : term timeout and forceTerm is false, so not kill appName=sm, pid=" +
                                      std::to_string(stubborn) + "TERMINATING to RUNNING"));
    EXPECT_EQ(LogCapture::Count("SendSignal"), 0u);
    Support::KillAndReap(stubborn);

    const pid_t victim = Support::SleepingChild();
    GeneralAppInfo force = General(TERMINATING, victim);
    force.isForceTerm_ = true;
    TermTimedOut(force);
    EXPECT_EQ(force.CheckState(), TERMINATING);
    EXPECT_TRUE(force.isKillSent_);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : term timeout and forceTerm is true, so kill appName=sm, pid=" +
                                      std::to_string(victim) + ",TERMINATING to TERMINATED"));
    int status = Support::ReapChild(victim);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(force.CheckState(), TERMINATING);
    EXPECT_EQ(LogCapture::Count("SendSignal: Successfully kill"), 1u);

    force.SetExitStatus(status);
    EXPECT_EQ(force.CheckState(), TERMINATED);
    EXPECT_EQ(force.reportState_, TERMINATED_NORMAL_EXIT);
    EXPECT_FALSE(force.isKillSent_);
    EXPECT_EQ(LogCapture::Count("STAVIK : TERMINATING to TERMINATED. (appName=sm,pid=" + std::to_string(force.pid_) +
                                ",cost="),
              1u);
}

// One below, exactly at and one above termTimeOut_ (1000 ms). The clock runs
// on between setting the start and the check, so a try that spans a whole
// millisecond is made again.
TEST_F(StateMachineTest, TermTimeOutFallsDueExactlyAtItsEnd)
{
    const std::pair<uint64_t, ProcessState> cases[] = {{999, TERMINATING}, {1000, RUNNING}, {1001, RUNNING}};
    for (const auto& [elapsedMs, expected] : cases) {
        ProcessState state = INITSTATE;
        for (int attempt = 0; attempt < 100; ++attempt) {
            GeneralAppInfo app = General(TERMINATING, 4242);
            const uint64_t before = SteadyNowNs();
            app.termBeginTime_ = before - elapsedMs * 1000000ULL;
            state = app.CheckState();
            if (SteadyNowNs() - before < 1000000ULL) {
                break;
            }
        }
        EXPECT_EQ(state, expected) << elapsedMs;
    }
}

TEST_F(StateMachineTest, RestartKillsTheOldProcessAndStartsTheNewOne)
{
    GeneralAppInfo app = General(INITSTATE, 0);
    ASSERT_TRUE(app.StartProcess());
    pid_t oldPid = app.pid_;
    // As a restart request leaves it; the manifest's force flag false doesn't spare the process.
    app.state_ = RESTARTING;
    app.isRestartStarted_ = 0;
    TermTimedOut(app);
    EXPECT_EQ(app.CheckState(), RESTARTING);
    EXPECT_TRUE(app.isKillSent_);
    int status = Support::ReapChild(oldPid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(app.CheckState(), RESTARTING);
    EXPECT_EQ(LogCapture::Count("SendSignal: Successfully kill"), 1u);

    app.isForceTerm_ = true;
    app.SetExitStatus(status);
    EXPECT_EQ(app.CheckState(), RESTARTING);
    EXPECT_NE(app.pid_, oldPid);
    EXPECT_EQ(app.isRestartStarted_, 1);
    EXPECT_FALSE(app.isKillSent_ || app.isForceTerm_ || app.hasExitStatus_);

    EXPECT_EQ(app.CheckState(), RUNNING);
    EXPECT_EQ(app.reportState_, RUNNING_NORMAL_RESTART);
    Support::KillAndReap(app.pid_);

    ManifestData gone = Data();
    gone.binPath = "/nonexistent/sm";
    GeneralAppInfo noBinary = General(RESTARTING, 601, gone);
    noBinary.SetExitStatus(SIGKILL);
    EXPECT_EQ(noBinary.CheckState(), TERMINATED);
    EXPECT_EQ(noBinary.reportState_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RESTARTING to TERMINATED appName=sm, pid=601"));

    // The new process dying before the next step ends the restart.
    GeneralAppInfo shortLived = General(RESTARTING, 602);
    shortLived.isRestartStarted_ = 1;
    shortLived.SetExitStatus(W_EXITCODE(2, 0));
    EXPECT_EQ(shortLived.CheckState(), TERMINATED);
    EXPECT_EQ(shortLived.reportState_, TERMINATED_ABNORMAL_EXIT);
    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK : Process=sm, pid=602 was self terminated, the exit status is 2."));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : RESTARTING to TERMINATED appName=sm, pid=602"));
}

// A pid whose status is collected is neither asked about nor signalled: it
// may be another process's by now. That a query never reaps is checked
// through the real daemon in tests/e2e/child_start.
TEST_F(StateMachineTest, CollectedPidIsLeftAlone)
{
    const pid_t stranger = Support::SleepingChild();
    GeneralAppInfo ended = General(RUNNING, stranger);
    ended.SetExitStatus(0);
    EXPECT_EQ(ended.QueryStopped(), 1);
    EXPECT_TRUE(ended.TermProcess());
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : TermProcess: appName=sm, pid=" + std::to_string(stranger) +
                                      " has already ended, no signal sent"));
    EXPECT_EQ(LogCapture::Count("SendSignal"), 0u);
    EXPECT_EQ(kill(stranger, 0), 0);
    Support::KillAndReap(stranger);
}

} // namespace
} // namespace App
} // namespace Stavik
