// Signals to applications and the workers of "FRSDaemon", against real
// processes; copies of sleep named "frsdaemon" play the workers, since the
// kernel names a process after the basename of its executable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

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
namespace fs = std::filesystem;

// A child that sleeps in path, or waits for a signal when path is empty.
pid_t Spawn(const std::string& path = "")
{
    pid_t pid = fork();
    if (pid == 0) {
        if (!path.empty()) {
            execl(path.c_str(), path.c_str(), "60", static_cast<char*>(nullptr));
        }
        pause();
        _exit(0);
    }
    return pid;
}

TEST(Signals, InvalidAndGonePidsAndTheSignalThatReachesTheProcess)
{
    ScopedLogCapture capture;
    for (int32_t pid : {0, -1}) {
        EXPECT_FALSE(SendSignal(SIGKILL, "app", pid));
        EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: appName app's pid=" + std::to_string(pid) + " is invalid"),
                  LOG_ERR);
    }
    GeneralAppInfo app;
    EXPECT_FALSE(app.TermProcess());
    EXPECT_EQ(LevelOf("STAVIK : TermProcess failed: the pid=0 is invalid"), LOG_ERR);
    EXPECT_FALSE(LogCapture::Contains("STAVIK : SendSignal: 9 to"));

    app.appName_ = "app";
    app.pid_ = Spawn();
    ASSERT_GT(app.pid_, 0);
    std::string pid = std::to_string(app.pid_);
    EXPECT_TRUE(app.TermProcess());
    EXPECT_TRUE(LogCapture::Contains("STAVIK : SendSignal: Successfully term appName=app, pid=" + pid));
    int status = 0;
    ASSERT_TRUE(WaitUntil([&] { return waitpid(app.pid_, &status, WNOHANG) == app.pid_; }));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);

    // A pid that is gone still counts as terminated.
    EXPECT_TRUE(app.TermProcess());
    EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: kill failed appName=app, pid=" + pid +
                      ", errno=" + std::to_string(ESRCH)),
              LOG_ERR);
    // The status of a gone pid can't be read, and what was asked for stays.
    std::map<std::string, std::string> unreadable = {{"Name", "kept"}};
    ReadProcStatus(app.pid_, unreadable);
    EXPECT_EQ(unreadable["Name"], "kept");
}

// The test process adopts the orphans of its tree, so that it reaps all of them.
TEST(Signals, OnlyWorkersOfTheVictimAreKilled)
{
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    fs::path dir = fs::temp_directory_path() / ("stavik_frs_" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string frsPath = (dir / "frsdaemon").string();
    fs::copy_file("/bin/sleep", frsPath, fs::copy_options::overwrite_existing);

    // A "frsdaemon" whose children are two "frsdaemon" workers and one "sleep".
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t frs = fork();
    if (frs == 0) {
        pid_t own[3] = {Spawn(frsPath), Spawn(frsPath), Spawn("/bin/sleep")};
        if (write(fds[1], own, sizeof(own)) == static_cast<ssize_t>(sizeof(own))) {
            execl(frsPath.c_str(), "frsdaemon", "60", static_cast<char*>(nullptr));
        }
        _exit(127);
    }
    close(fds[1]);
    pid_t children[3] = {0, 0, 0};
    ssize_t got = read(fds[0], children, sizeof(children));
    close(fds[0]);
    pid_t stranger = Spawn(frsPath);
    std::vector<pid_t> spawned = {frs, stranger, children[0], children[1], children[2]};
    ASSERT_EQ(got, static_cast<ssize_t>(sizeof(children)));
    ASSERT_TRUE(WaitUntil([&] {
        return IsNameMatch("frsdaemon", frs) && IsNameMatch("frsdaemon", children[0]) &&
               IsNameMatch("frsdaemon", children[1]) && IsNameMatch("sleep", children[2]) &&
               IsNameMatch("frsdaemon", stranger);
    }));
    ScopedLogCapture capture;

    // Only the application "FRSDaemon" has workers, and only while its pid is still a "frsdaemon".
    TermFrsSubProc("frsdaemon", frs);
    EXPECT_TRUE(LogCapture::Lines().empty());
    TermFrsSubProc("FRSDaemon", children[2]);
    EXPECT_EQ(LevelOf("STAVIK : TermFrsSubProc failed: appName FRSDaemon's pid=" + std::to_string(children[2]) +
                      " is invalid"),
              LOG_ERR);
    EXPECT_FALSE(LogCapture::Contains("TermFrsSubProc kill process"));

    TermFrsSubProc("FRSDaemon", frs);
    std::string frsPid = std::to_string(frs);
    EXPECT_TRUE(LogCapture::Contains("STAVIK: TermFrsSubProc end, frsPid=" + frsPid));
    for (pid_t worker : {children[0], children[1]}) {
        EXPECT_EQ(LogCapture::Count("STAVIK : TermFrsSubProc kill process frsdaemon(ppid=" + frsPid +
                                    ", pid=" + std::to_string(worker) + ")"),
                  1u);
    }
    EXPECT_TRUE(WaitUntil([&] { return IsGone(children[0]) && IsGone(children[1]); }));
    for (pid_t spared : {frs, children[2], stranger}) {
        EXPECT_FALSE(IsGone(spared)) << spared;
    }
    // An orphaned worker (parent init) counts too; another's child never does.
    EXPECT_TRUE(IsFrsWorker("frsdaemon", "1", 321));
    EXPECT_FALSE(IsFrsWorker("frsdaemon", "322", 321));

    for (pid_t pid : spawned) {
        kill(pid, SIGKILL);
    }
    EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }));
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    fs::remove_all(dir);
}

} // namespace
} // namespace App
} // namespace Stavik
