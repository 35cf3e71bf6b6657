// Signals to applications and the workers of "FRSDaemon", against real
// processes named as the kernel shows them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>


#include "app/app_info.h"
#include "app/signals.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::IsGone;
using AppTest::LevelOf;
using AppTest::ScopedLogCapture;
using AppTest::WaitUntil;

// A child named name that waits to be killed, and dies with this thread;
// given a pipe, it first starts a "frsdaemon" of its own and writes its pid there.
pid_t Spawn(const char* name, int pipeFd = -1)
{
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, name);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pid_t own = pipeFd < 0 ? 0 : Spawn("frsdaemon");
        if (pipeFd >= 0 && write(pipeFd, &own, sizeof(own)) < 0) {
            _exit(1);
        }
        while (true) {
            pause();
        }
    }
    return pid;
}

// TermProcess of a pid 0 is refused in tests/unit/control.
TEST(Signals, InvalidAndGonePidsAndTheSignalThatReachesTheProcess)
{
    ScopedLogCapture capture;
    for (int32_t pid : {0, -1}) {
        EXPECT_FALSE(SendSignal(SIGKILL, "app", pid));
        EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: appName app's pid=" + std::to_string(pid) + " is invalid"),
                  LOG_ERR);
    }
    GeneralAppInfo app;
    app.appName_ = "app";
    app.pid_ = Spawn("app");
    const std::string pid = std::to_string(app.pid_);
    int status = 0;
    EXPECT_TRUE(app.TermProcess());
    ASSERT_TRUE(WaitUntil([&] { return waitpid(app.pid_, &status, WNOHANG) == app.pid_; }));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);

    // A pid that is gone still counts as terminated; its status can't be read,
    // and what was asked for stays.
    EXPECT_TRUE(app.TermProcess());
    EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: kill failed appName=app, pid=" + pid + ", errno=3"), LOG_ERR);
    std::map<std::string, std::string> unreadable = {{"Name", "kept"}};
    ReadProcStatus(app.pid_, unreadable);
    EXPECT_EQ(unreadable["Name"], "kept");
}

// The test process plays "frsdaemon": its children of that name are its
// workers, a "frsdaemon" started by another child is not.
TEST(Signals, OnlyWorkersOfTheVictimAreKilled)
{
    char ownName[16] = {};
    prctl(PR_GET_NAME, ownName);
    prctl(PR_SET_NAME, "frsdaemon");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t frs = getpid(), workers[2] = {Spawn("frsdaemon"), Spawn("frsdaemon")}, other = Spawn("sleep", fds[1]);
    pid_t stranger = 0;
    ASSERT_EQ(read(fds[0], &stranger, sizeof(stranger)), static_cast<ssize_t>(sizeof(stranger)));
    close(fds[0]);
    close(fds[1]);
    ASSERT_TRUE(WaitUntil([&] {
        return IsNameMatch("frsdaemon", workers[0]) && IsNameMatch("frsdaemon", workers[1]) &&
               IsNameMatch("sleep", other) && IsNameMatch("frsdaemon", stranger);
    }));
    ScopedLogCapture capture;

    // Only the application "FRSDaemon" has workers, and only while its pid is still a "frsdaemon".
    TermFrsSubProc("frsdaemon", frs);
    EXPECT_TRUE(LogCapture::Lines().empty());
    TermFrsSubProc("FRSDaemon", other);
    EXPECT_EQ(LevelOf("STAVIK : TermFrsSubProc failed: appName FRSDaemon's pid=" + std::to_string(other) +
                      " is invalid"),
              LOG_ERR);

    TermFrsSubProc("FRSDaemon", frs);
    EXPECT_TRUE(LogCapture::Contains("STAVIK: TermFrsSubProc end, frsPid=" + std::to_string(frs)));
    EXPECT_EQ(LogCapture::Count("STAVIK : TermFrsSubProc kill process frsdaemon(ppid=" + std::to_string(frs)), 2u);
    for (pid_t worker : workers) {
        EXPECT_TRUE(WaitUntil([worker] { return waitpid(worker, nullptr, WNOHANG) == worker; }));
    }
    EXPECT_FALSE(IsGone(other) || IsGone(stranger));
    // An orphaned worker (parent init) counts too.
    EXPECT_TRUE(IsFrsWorker("frsdaemon", "1", 321));

    kill(other, SIGKILL);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    prctl(PR_SET_NAME, ownName);
}

} // namespace
} // namespace App
} // namespace Stavik
