#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "app/app_info.h"
#include "app/signals.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ReapWithin;
using AppTest::ScopedLogCapture;

pid_t ForkChild(bool waitForSignal)
{
    pid_t pid = fork();
    if (pid == 0) {
        if (waitForSignal) {
            pause();
        }
        _exit(0);
    }
    return pid;
}

std::string OwnComm()
{
    std::ifstream file("/proc/self/comm");
    std::string comm;
    std::getline(file, comm);
    return comm;
}

TEST(Signals, InvalidPidsAreNeverSignalled)
{
    ScopedLogCapture capture;
    for (int32_t pid : {0, -1}) {
        EXPECT_FALSE(SendSignal(SIGKILL, "app", pid));
        EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: appName app's pid=" + std::to_string(pid) + " is invalid"),
                  LOG_ERR);
    }
    EXPECT_FALSE(LogCapture::Contains("STAVIK : SendSignal: 9 to"));

    GeneralAppInfo app;
    EXPECT_FALSE(app.TermProcess());
    EXPECT_EQ(LevelOf("STAVIK : TermProcess failed: the pid=0 is invalid"), LOG_ERR);
}

TEST(Signals, TermReachesTheProcessAndAGonePidStillCounts)
{
    GeneralAppInfo app;
    app.appName_ = "app";
    app.pid_ = ForkChild(true);
    ASSERT_GT(app.pid_, 0);
    std::string pid = std::to_string(app.pid_);
    ScopedLogCapture capture;

    EXPECT_TRUE(SendSignal(0, "app", app.pid_));
    EXPECT_EQ(LevelOf("STAVIK : SendSignal: 0 to app=app, pid=" + pid), LOG_INFO);
    EXPECT_EQ(LevelOf("STAVIK : SendSignal: Successfully send 0 to appName=app, pid=" + pid), LOG_INFO);
    EXPECT_TRUE(app.TermProcess());
    EXPECT_TRUE(LogCapture::Contains("STAVIK : SendSignal: Successfully term appName=app, pid=" + pid));
    int status = 0;
    ASSERT_TRUE(ReapWithin(app.pid_, &status));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);

    EXPECT_TRUE(app.TermProcess());
    EXPECT_EQ(LevelOf("STAVIK : SendSignal failed: kill failed appName=app, pid=" + pid +
                      ", errno=" + std::to_string(ESRCH)),
              LOG_ERR);
}

TEST(ProcStatus, ReadsTheWantedKeys)
{
    std::map<std::string, std::string> status = {{"Name", ""}, {"PPid", ""}, {"NoSuchKey", "kept"}};
    ReadProcStatus(getpid(), status);
    EXPECT_EQ(status["Name"], OwnComm());
    EXPECT_EQ(status["PPid"], std::to_string(getppid()));
    EXPECT_EQ(status["NoSuchKey"], "kept");

    pid_t gone = ForkChild(false);
    int exitStatus = 0;
    ASSERT_TRUE(ReapWithin(gone, &exitStatus));
    std::map<std::string, std::string> unreadable = {{"Name", "kept"}};
    ReadProcStatus(gone, unreadable);
    EXPECT_EQ(unreadable["Name"], "kept");

    EXPECT_EQ(TrimBlanks("\t  value  "), "value");
    EXPECT_EQ(TrimBlanks("\tS (sleeping)\t "), "S (sleeping)");
    EXPECT_EQ(TrimBlanks(" \t \t"), "");

    EXPECT_TRUE(IsNameMatch(OwnComm(), getpid()));
    EXPECT_FALSE(IsNameMatch(OwnComm() + "x", getpid()));
    EXPECT_FALSE(IsNameMatch("", getpid()));
    EXPECT_FALSE(IsNameMatch(OwnComm(), 1));
}

} // namespace
} // namespace App
} // namespace Stavik
