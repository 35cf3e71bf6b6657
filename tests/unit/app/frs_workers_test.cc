#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

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

// Forks a process that runs path as sleep; the kernel names a process after
// the basename of its executable, so a copy of sleep named "frsdaemon" plays a worker.
pid_t Spawn(const std::string& path)
{
    pid_t pid = fork();
    if (pid == 0) {
        execl(path.c_str(), path.c_str(), "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// The test process adopts the orphans of its tree, so that it reaps all of them.
class FrsWorkers : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        dir_ = fs::temp_directory_path() / ("stavik_frs_" + std::to_string(getpid()));
        fs::create_directories(dir_);
        frsPath_ = (dir_ / "frsdaemon").string();
        fs::copy_file("/bin/sleep", frsPath_, fs::copy_options::overwrite_existing);
    }

    void TearDown() override
    {
        for (pid_t pid : spawned_) {
            kill(pid, SIGKILL);
        }
        EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }));
        prctl(PR_SET_CHILD_SUBREAPER, 0);
        fs::remove_all(dir_);
    }

    // A "frsdaemon" whose children are two "frsdaemon" workers and one "sleep".
    pid_t SpawnFrsTree(pid_t children[3])
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return -1;
        }
        pid_t frs = fork();
        if (frs == 0) {
            pid_t own[3] = {Spawn(frsPath_), Spawn(frsPath_), Spawn("/bin/sleep")};
            if (write(fds[1], own, sizeof(own)) == static_cast<ssize_t>(sizeof(own))) {
                execl(frsPath_.c_str(), "frsdaemon", "60", static_cast<char*>(nullptr));
            }
            _exit(127);
        }
        close(fds[1]);
        ssize_t got = read(fds[0], children, 3 * sizeof(pid_t));
        close(fds[0]);
        spawned_.push_back(frs);
        if (got != static_cast<ssize_t>(3 * sizeof(pid_t))) {
            return -1;
        }
        spawned_.insert(spawned_.end(), children, children + 3);
        return frs;
    }

    fs::path dir_;
    std::string frsPath_;
    std::vector<pid_t> spawned_;
};

TEST(FrsWorkerRule, ChildrenOfTheVictimOrOfInit)
{
    EXPECT_TRUE(IsFrsWorker("frsdaemon", "321", 321));
    EXPECT_TRUE(IsFrsWorker("frsdaemon", "1", 321));
    EXPECT_FALSE(IsFrsWorker("frsdaemon", "322", 321));
    EXPECT_FALSE(IsFrsWorker("FRSDaemon", "321", 321));
}

TEST_F(FrsWorkers, OnlyWorkersOfTheVictimAreKilled)
{
    pid_t children[3] = {0, 0, 0};
    pid_t frs = SpawnFrsTree(children);
    ASSERT_GT(frs, 0);
    pid_t stranger = Spawn(frsPath_);
    spawned_.push_back(stranger);
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
    EXPECT_TRUE(LogCapture::Contains("STAVIK: TermFrsSubProc begin, frsPid=" + frsPid));
    EXPECT_TRUE(LogCapture::Contains("STAVIK: TermFrsSubProc end, frsPid=" + frsPid));
    for (pid_t worker : {children[0], children[1]}) {
        EXPECT_EQ(LogCapture::Count("STAVIK : TermFrsSubProc kill process frsdaemon(ppid=" + frsPid +
                                    ", pid=" + std::to_string(worker) + ")"),
                  1u);
    }
    EXPECT_TRUE(WaitUntil([&] { return IsGone(children[0]) && IsGone(children[1]); }));
    for (pid_t spared : {frs, children[2], stranger}) {
        EXPECT_FALSE(LogCapture::Contains(", pid=" + std::to_string(spared) + ")")) << spared;
        EXPECT_FALSE(IsGone(spared)) << spared;
    }
}

} // namespace
} // namespace App
} // namespace Stavik
