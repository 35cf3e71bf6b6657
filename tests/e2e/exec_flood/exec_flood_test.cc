// A service whose exec fails, restarted for ever, fills the daemon's child
// message pipe with its text for minutes; the other children must not notice.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const auto FLOOD_TIME = std::chrono::minutes(3);
const int64_t EXEC_BOUND_NS = 100 * 1000000LL;
const std::string EXEC_FAILED = "execv failed, execPath_=";

// Long enough that every failure says about 1.6 KB, so that a reader that
// falls behind is left behind within seconds.
std::string LongDir()
{
    std::string dir = "/opt";
    for (int i = 0; i < 7; ++i) {
        dir += "/" + std::string(200, static_cast<char>('a' + i));
    }
    return dir;
}

// Nanoseconds from the fork of pid (its start time on the boot clock, in
// clock ticks) to the moment the probe's main began after exec.
int64_t ForkToExecNs(pid_t pid, const std::map<std::string, std::string>& record)
{
    std::string stat = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
    }
    int64_t tickNs = 1000000000LL / sysconf(_SC_CLK_TCK);
    return std::stoll(record.at("boottime_ns")) - std::stoll(field) * tickNs;
}

std::vector<pid_t> ChildrenInPipeWrite(pid_t daemon)
{
    std::vector<pid_t> blocked;
    for (const auto& child : ChildrenOf(daemon)) {
        if (ReadWholeFile("/proc/" + std::to_string(child.first) + "/wchan") == "pipe_write") {
            blocked.push_back(child.first);
        }
    }
    return blocked;
}

TEST(ExecFlood, ChildrenStillReachExecWithinATenthOfASecondAfterMinutesOfFailingExecs)
{
    Sandbox box;
    MakeDirs(box.Path("/out/phoenix"));
    AppEntry failing = ProbeApp("failing").With("restart", "on-forever");
    failing.binPath = box.WriteFile(LongDir() + "/broken", "not a program\n", 0755);
    AppEntry phoenix = ProbeApp("phoenix", {"--out-dir", box.Path("/out/phoenix")}).With("restart", "on-forever");
    std::string lateFile = box.WriteFile("/etc/startup/owner_f.yaml",
                                         AppsText({ProbeApp("late_app", {"--out", box.Path("/out/late")})}));
    std::string manifest =
        box.WriteFile("/etc/base.yaml", AppsText({failing, phoenix, DummyOwner("owner_f", lateFile)}));
    PlayedOwners owners(box, {"owner_f"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {manifest});
    OwnerSession& owner = owners["owner_f"];
    ASSERT_TRUE(ReportRunning(owner)) << daemon.Log();

    const auto end = std::chrono::steady_clock::now() + FLOOD_TIME;
    while (std::chrono::steady_clock::now() < end) {
        ASSERT_EQ(std::vector<pid_t>{}, ChildrenInPipeWrite(daemon.Pid()));
        WaitUntil([] { return false; }, 1000);
    }
    size_t failures = daemon.StartedPids("failing").size();
    size_t told = daemon.CountLines(EXEC_FAILED);
    EXPECT_LT(300u, failures) << "the service should have failed all along";
    // What children write keeps reaching the log.
    EXPECT_TRUE(WaitUntil([&] { return daemon.CountLines(EXEC_FAILED) > told + 10; }, 20000));

    std::vector<pid_t> phoenixPids = daemon.StartedPids("phoenix");
    ASSERT_EQ(1u, phoenixPids.size());
    kill(phoenixPids[0], SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return daemon.StartedPids("phoenix").size() == 2; }, OWNER_WAIT_MS));
    pid_t reborn = daemon.StartedPids("phoenix")[1];
    std::string rebornRecord = box.Path("/out/phoenix/" + std::to_string(reborn));

    ASSERT_TRUE(LoadStartup(owner)) << owner.LastError();
    ASSERT_TRUE(owner.SendStart({{"late_app", {}, {}}})) << owner.LastError();
    ASSERT_TRUE(WaitUntil([&] { return !daemon.Starts("Start generalApp success").empty(); }, OWNER_WAIT_MS));
    pid_t late = daemon.Starts("Start generalApp success").back().pid;

    std::map<pid_t, std::string> records = {{reborn, rebornRecord}, {late, box.Path("/out/late")}};
    for (const auto& entry : records) {
        ASSERT_TRUE(WaitUntil([&] { return ReadProbeRecord(entry.second).count("boottime_ns") != 0; }))
            << "pid " << entry.first << " never reached exec";
        EXPECT_GT(EXEC_BOUND_NS, ForkToExecNs(entry.first, ReadProbeRecord(entry.second))) << "pid " << entry.first;
    }
    EXPECT_EQ(std::vector<pid_t>{}, ChildrenInPipeWrite(daemon.Pid()));
}

} // namespace
} // namespace Test
} // namespace Stavik
