// Start, restart and term against each state a record can be seen in from
// outside, checked by what the owners are told. Cells that can't be hit from
// outside (INITSTATE in the live map, TERMINATED before its removal, STARTING)
// belong to the in-process tests of the handlers.
#include <signal.h>

#include <chrono>

#include "tests/e2e/control/control_run.h"

namespace Stavik {
namespace Test {
namespace {

const std::string B = "owner_b";

std::string Pid(pid_t pid)
{
    return std::to_string(pid);
}

// Start, restart and term, in this order, against a record kept in an
// intermediate state by a process that ignores SIGTERM.
void ExpectAllAnsweredInvalid(const std::string& app, pid_t pid, const std::string& stateWord)
{
    size_t mark = ControlRun::Mark(B);
    ASSERT_TRUE(ControlRun::Start(B, {app}) && ControlRun::Restart(B, {app}) && ControlRun::Term(B, {app}))
        << ControlRun::Owner(B).LastError();
    std::vector<Message::AppStateInfo> answers = ControlRun::AwaitEntries(B, app, 3, mark);
    ASSERT_EQ(3u, answers.size()) << ControlRun::Daemon().Log();
    for (const Message::AppStateInfo& answer : answers) {
        EXPECT_EQ(static_cast<uint32_t>(INVALID_INTERMEDIATE_STATE), answer.state);
        EXPECT_EQ(static_cast<uint32_t>(pid), answer.pid);
    }
    const std::string at = "appName=" + app + ", pid=" + Pid(pid) + ", state=" + stateWord;
    EXPECT_EQ(1u, ControlRun::Count("STAVIK : StartApp : " + at + " is in invalid state"));
    EXPECT_EQ(1u, ControlRun::Count("STAVIK : RestartApp failed: StartProcess : " + at +
                                    " is invalid intermediate state"));
    EXPECT_EQ(1u, ControlRun::Count("STAVIK : TermGeneralApp failed: " + at + " is invalid intermediate state"));
    EXPECT_TRUE(ProcessAlive(pid));
}

TEST_F(ControlRun, RequestsOnAbsentRunningAndRemovedRecords)
{
    const std::string app = "t_plain";
    size_t zulMark = Mark("zulmgr");
    size_t ownMark = Mark(B);
    pid_t first = StartRunning(B, app);
    ASSERT_GT(first, 0) << Daemon().Log();

    // RUNNING: a start is answered at once with the running process.
    std::optional<Message::AppStateInfo> again = Ask(&Start, B, app, RUNNING_NORMAL_START);
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(static_cast<uint32_t>(first), again->pid);
    EXPECT_EQ(1u, Count("STAVIK : StartApp : appName=t_plain, pid=" + Pid(first) + " is already running"));

    // RUNNING: a term ends it through SIGTERM; the record then leaves the live map.
    std::optional<Message::AppStateInfo> ended = Ask(&Term, B, app, TERMINATED_NORMAL_EXIT);
    ASSERT_TRUE(ended.has_value());
    EXPECT_EQ(static_cast<uint32_t>(first), ended->pid);
    ASSERT_TRUE(WaitForRemovals(app, 1));

    // Absent: a term counts as done, a restart starts a new process.
    std::optional<Message::AppStateInfo> gone = Ask(&Term, B, app, TERMINATED_NORMAL_EXIT);
    ASSERT_TRUE(gone.has_value());
    EXPECT_TRUE(WaitForExact("STAVIK : TermGeneralApp:app=t_plain is already terminated and removed"));
    std::optional<Message::AppStateInfo> restarted = Ask(&Restart, B, app, RUNNING_NORMAL_RESTART);
    ASSERT_TRUE(restarted.has_value());
    EXPECT_NE(static_cast<uint32_t>(first), restarted->pid);

    // RUNNING: a restart terms the process and starts the next one.
    std::optional<Message::AppStateInfo> replaced = Ask(&Restart, B, app, RUNNING_NORMAL_RESTART);
    ASSERT_TRUE(replaced.has_value());
    EXPECT_NE(restarted->pid, replaced->pid);
    EXPECT_TRUE(WaitUntil([&] { return !ProcessAlive(static_cast<pid_t>(restarted->pid)); }, OWNER_WAIT_MS));

    // Absent after a removal: a start starts it again.
    ASSERT_TRUE(Term(B, {app}));
    ASSERT_TRUE(WaitForRemovals(app, 2));
    pid_t last = StartRunning(B, app);
    EXPECT_GT(last, 0);

    const std::vector<uint32_t> expected = {0, 0, 3, 3, 1, 1, 3, 0};
    EXPECT_EQ(expected, StatesOf(EntriesOf(Owner(B), app, ownMark)));
    EXPECT_EQ(expected, StatesOf(AwaitEntries("zulmgr", app, expected.size(), zulMark)))
        << "the naming service hears every change";
}

TEST_F(ControlRun, RequestsOnTerminatingAndRestartingRecordsAreAnsweredInvalid)
{
    pid_t terming = StartStubborn(B, "t_stuck");
    ASSERT_GT(terming, 0) << Daemon().Log();
    ASSERT_TRUE(Term(B, {"t_stuck"}));
    ASSERT_TRUE(WaitForExact("STAVIK : SendSignal: Successfully term appName=t_stuck, pid=" + Pid(terming)));
    ExpectAllAnsweredInvalid("t_stuck", terming, "TERMINATING");

    pid_t restarting = StartStubborn(B, "t_stuck_r");
    ASSERT_GT(restarting, 0) << Daemon().Log();
    ASSERT_TRUE(Restart(B, {"t_stuck_r"}));
    ASSERT_TRUE(WaitForExact("STAVIK : RestartApp set RESTARTING state finished(when app was running before):"
                             "appName=t_stuck_r, pid=" + Pid(restarting) + ", state=RESTARTING"));
    ExpectAllAnsweredInvalid("t_stuck_r", restarting, "RESTARTING");
}

TEST_F(ControlRun, UnknownNamesAndNeverStartedRecords)
{
    size_t mark = Mark(B);
    size_t zulMark = Mark("zulmgr");
    // The unknown second name ends the request: the third is never looked at.
    ASSERT_TRUE(Start(B, {"t_list1", "nosuch", "t_list3"}));
    ASSERT_TRUE(Await(B, "t_list1", RUNNING_NORMAL_START, mark).has_value()) << Daemon().Log();
    EXPECT_TRUE(WaitForExact("STAVIK : StartApp: appName=nosuch is null"));

    // A term of what has no record, or was loaded but never started, counts as
    // done with pid 0; a restart of an unknown name is answered as a failure.
    ASSERT_TRUE(Term(B, {"nosuch", "t_idle"}));
    ASSERT_TRUE(Restart(B, {"nosuch"}));
    std::vector<Message::AppStateInfo> unknown = AwaitEntries(B, "nosuch", 2, mark);
    ASSERT_EQ(2u, unknown.size());
    EXPECT_EQ((std::vector<uint32_t>{TERMINATED_NORMAL_EXIT, TERMINATED_ABNORMAL_EXIT}), StatesOf(unknown));
    EXPECT_EQ(0u, unknown[0].pid);
    EXPECT_EQ(0u, unknown[1].pid);
    std::vector<Message::AppStateInfo> idle = EntriesOf(Owner(B), "t_idle", mark);
    ASSERT_EQ(1u, idle.size());
    EXPECT_EQ(static_cast<uint32_t>(TERMINATED_NORMAL_EXIT), idle[0].state);
    EXPECT_EQ(0u, idle[0].pid);
    EXPECT_EQ(1u, Count("STAVIK : termApp failed: not find app=nosuch"));
    EXPECT_EQ(1u, Count("STAVIK : termApp failed: not find app=t_idle"));
    EXPECT_EQ(1u, Count("STAVIK : RestartApp failed: not find app=nosuch"));

    ASSERT_TRUE(Barrier(Owner(B)));
    EXPECT_TRUE(EntriesOf(Owner(B), "t_list3", mark).empty());
    EXPECT_TRUE(EntriesOf(Owner("zulmgr"), "t_list3", zulMark).empty());
    EXPECT_EQ(0u, Daemon().CountLines("Start generalApp success appName=t_list3,"));
}

TEST_F(ControlRun, ForceTermKillsAStubbornProcessOnceAtTheTimeOut)
{
    pid_t pid = StartStubborn(B, "t_force");
    ASSERT_GT(pid, 0) << Daemon().Log();
    auto sent = std::chrono::steady_clock::now();
    std::optional<Message::AppStateInfo> ended = Ask(&Term, B, "t_force", TERMINATED_NORMAL_EXIT);
    ASSERT_TRUE(ended.has_value()) << Daemon().Log();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(300));
    EXPECT_EQ(static_cast<uint32_t>(pid), ended->pid);
    ASSERT_TRUE(WaitForRemovals("t_force", 1));
    EXPECT_EQ(1u, Count("STAVIK : SendSignal: Successfully term appName=t_force, pid=" + Pid(pid)));
    EXPECT_EQ(1u, Count("STAVIK : term timeout and forceTerm is true, so kill appName=t_force, pid=" + Pid(pid) +
                        ",TERMINATING to TERMINATED"));
    EXPECT_EQ(1u, Count("STAVIK : SendSignal: Successfully kill appName=t_force, pid=" + Pid(pid)));
    EXPECT_EQ(1u, Count("STAVIK : Process=t_force, pid=" + Pid(pid) + " terminated by calling Kill(), signal=9"));
}

TEST_F(ControlRun, TermWithoutForceGivesUpWhileRestartKillsAtTheTimeOut)
{
    pid_t first = StartStubborn(B, "t_noforce");
    ASSERT_GT(first, 0) << Daemon().Log();
    std::optional<Message::AppStateInfo> kept = Ask(&Term, B, "t_noforce", RUNNING_ABNORMAL_TERM_TIMEOUT);
    ASSERT_TRUE(kept.has_value()) << Daemon().Log();
    EXPECT_EQ(static_cast<uint32_t>(first), kept->pid);
    EXPECT_TRUE(ProcessAlive(first));
    EXPECT_EQ(1u, Count("STAVIK : term timeout and forceTerm is false, so not kill appName=t_noforce, pid=" +
                        Pid(first) + "TERMINATING to RUNNING"));

    // A restart kills at the time-out whatever the manifest says.
    std::optional<Message::AppStateInfo> restarted = Ask(&Restart, B, "t_noforce", RUNNING_NORMAL_RESTART);
    ASSERT_TRUE(restarted.has_value()) << Daemon().Log();
    pid_t second = static_cast<pid_t>(restarted->pid);
    EXPECT_NE(first, second);
    ASSERT_TRUE(WaitUntil([&] { return IgnoresSignal(second, SIGTERM); }, OWNER_WAIT_MS));
    EXPECT_EQ(1u, Count("STAVIK : SendSignal: Successfully kill appName=t_noforce, pid=" + Pid(first)));
    EXPECT_TRUE(WaitUntil([&] { return !ProcessAlive(first); }, OWNER_WAIT_MS));

    // The next plain term obeys the manifest again.
    std::optional<Message::AppStateInfo> keptAgain = Ask(&Term, B, "t_noforce", RUNNING_ABNORMAL_TERM_TIMEOUT);
    ASSERT_TRUE(keptAgain.has_value()) << Daemon().Log();
    EXPECT_EQ(static_cast<uint32_t>(second), keptAgain->pid);
    EXPECT_TRUE(ProcessAlive(second));
    EXPECT_EQ(0u, Count("STAVIK : SendSignal: Successfully kill appName=t_noforce, pid=" + Pid(second)));
}

} // namespace
} // namespace Test
} // namespace Stavik
