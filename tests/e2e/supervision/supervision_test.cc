// Reaping, state changes and restart policy of base services, seen from
// outside the real daemon; the services are probe children that die as told.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <regex>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const int LOOP_TIMEOUT_MS = 60000;
const std::string UNMATCHED_DEATH = "STAVIK: can not find app";
const gid_t SEGV_GID = 4011;
const gid_t IO_ERROR_GID = 4125;
// Long enough for the daemon to file the record before the first death.
const std::string LIFETIME_MS = "100";

std::string CheckLine(const std::string& name, pid_t pid, const std::string& what)
{
    return "STAVIK: CheckThread : owner=" + name + ", pid=" + std::to_string(pid) + ", state=TERMINATED " + what;
}

std::string Removed(const std::string& name)
{
    return "STAVIK : Process " + name + " removed from the list of executedBaseApp_";
}

std::string ExitLine(const std::string& name, pid_t pid, const std::string& what)
{
    return "STAVIK : Process=" + name + ", pid=" + std::to_string(pid) + " " + what;
}

AppEntry Dying(const std::string& name, const std::vector<std::string>& how)
{
    std::vector<std::string> args = {"--after-ms", LIFETIME_MS};
    args.insert(args.end(), how.begin(), how.end());
    return ProbeApp(name, args);
}

// One daemon whose services die in different ways, shared by the tests of this suite.
class DeathsRun : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sandbox_ = new Sandbox();
        MakeDirs(sandbox_->Path("/out/crash_fail"));
        AppEntry segv = Dying("segv", {"--no-core", "--signal", "11"});
        segv.gid = SEGV_GID;
        AppEntry ioError = Dying("io_error", {"--exit", "125"});
        ioError.gid = IO_ERROR_GID;
        std::vector<AppEntry> services = {
            Dying("crash_fail", {"--out-dir", sandbox_->Path("/out/crash_fail"), "--exit", "1"})
                .With("restart", "on-failure"),
            Dying("forever_zero", {"--exit", "0"}).With("restart", "on-forever"), segv, ioError,
            Dying("no_policy", {"--exit", "0"}), Dying("killed", {"--signal", "9"}), Dying("exit3", {"--exit", "3"}),
        };
        daemon_ = new DaemonProcess(*sandbox_, {sandbox_->WriteFile("/etc/base.yaml", AppsText(services))});
    }

    static void TearDownTestSuite()
    {
        delete daemon_;
        delete sandbox_;
    }

    // The pid of the one incarnation of a service without restarts, once it is gone.
    static pid_t PidOfRemoved(const std::string& name)
    {
        std::vector<pid_t> pids;
        if (daemon_->WaitForExact(Removed(name), LOOP_TIMEOUT_MS)) {
            pids = daemon_->StartedPids(name);
        }
        return pids.size() == 1 ? pids[0] : 0;
    }

    static Sandbox* sandbox_;
    static DaemonProcess* daemon_;
};

Sandbox* DeathsRun::sandbox_ = nullptr;
DaemonProcess* DeathsRun::daemon_ = nullptr;

// Given up at the sixth death within a minute, at its own pace: no open of a
// pipe holds the check thread for a service that doesn't report, which reaps
// the other services' deaths in the same window.
TEST_F(DeathsRun, OnFailureIsGivenUpAtTheSixthDeathWithinAMinuteAndRemovedInThatPass)
{
    const std::string name = "crash_fail";
    ASSERT_TRUE(daemon_->WaitForExact(Removed(name), LOOP_TIMEOUT_MS)) << daemon_->Log();
    std::vector<pid_t> pids = daemon_->StartedPids(name);
    ASSERT_EQ(6u, pids.size()) << daemon_->Log();
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(1u, daemon_->CountExact(CheckLine(name, pids[i], "will restart now"))) << i;
    }
    const std::regex limitLine("^STAVIK : Process=crash_fail has restart 5 times in recent ([0-9]+) ms\\.$");
    std::smatch match;
    long limit = -1;
    std::vector<std::string> lines = daemon_->Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string text = LogText(lines[i]);
        if (std::regex_match(text, match, limitLine)) {
            EXPECT_LT(std::stol(match[1]), 3000);
            limit = static_cast<long>(i);
        }
    }
    long refused = daemon_->IndexOfExact(CheckLine(name, pids[5], "doesn't need to restart"));
    EXPECT_LE(0, limit) << daemon_->Log();
    EXPECT_LT(limit, refused);
    EXPECT_LT(refused, daemon_->IndexOfExact(Removed(name)));
    long otherDeath = daemon_->IndexOf("Process=exit3,");
    EXPECT_LE(0, otherDeath);
    EXPECT_LT(otherDeath, limit);
    // Had the record outlived its pass, the next one would find it TERMINATED.
    EXPECT_EQ(0u, daemon_->CountLines("Process crash_fail got unexpected TERMINATED state"));
    EXPECT_EQ(0u, daemon_->CountLines("RegisterService failed"));

    for (size_t i = 0; i < pids.size(); ++i) {
        std::map<std::string, std::string> record =
            ReadProbeRecord(sandbox_->Path("/out/crash_fail/" + std::to_string(pids[i])));
        EXPECT_EQ(i == 0 ? "0" : "1", record["env.IS_RESTART"]) << "incarnation " << i;
    }
}

TEST_F(DeathsRun, OnForeverHasNoLimitAndNoPolicyEndsAtTheFirstDeath)
{
    EXPECT_TRUE(WaitUntil([&] { return daemon_->StartedPids("forever_zero").size() > 7; }, LOOP_TIMEOUT_MS))
        << daemon_->Log();
    EXPECT_EQ(0u, daemon_->CountLines("Process=forever_zero has restart"));
    EXPECT_EQ(0u, daemon_->CountLines("Process forever_zero removed"));

    pid_t pid = PidOfRemoved("no_policy");
    ASSERT_NE(0, pid) << daemon_->Log();
    long unexpected = daemon_->IndexOfExact(CheckLine("no_policy", pid, "unexpectedly terminated."));
    long refused = daemon_->IndexOfExact(CheckLine("no_policy", pid, "doesn't need to restart"));
    EXPECT_LE(0, unexpected);
    EXPECT_LT(unexpected, refused);
    EXPECT_LT(refused, daemon_->IndexOfExact(Removed("no_policy")));
    EXPECT_EQ(0u, daemon_->CountLines("owner=no_policy, pid=" + std::to_string(pid) + ", state=TERMINATED will"));
}

TEST_F(DeathsRun, EachKindOfDeathGivesItsExitLineAndReason)
{
    pid_t segv = PidOfRemoved("segv");
    pid_t killed = PidOfRemoved("killed");
    pid_t ioError = PidOfRemoved("io_error");
    pid_t exit3 = PidOfRemoved("exit3");
    ASSERT_TRUE(segv != 0 && killed != 0 && ioError != 0 && exit3 != 0) << daemon_->Log();
    const std::vector<std::string> lines = {
        ExitLine("segv", segv, "got unexpected signal=11"),
        "STAVIK: appName=segv, pid=" + std::to_string(SEGV_GID) + ", terminated as coredump error",
        ExitLine("killed", killed, "terminated by calling Kill(), signal=9"),
        ExitLine("io_error", ioError, "was self terminated, the exit status is 125."),
        "STAVIK: appName=io_error, pid=" + std::to_string(IO_ERROR_GID) + ", terminated as input/output error",
        ExitLine("exit3", exit3, "was self terminated, the exit status is 3."),
        "STAVIK : RUNNING to TERMINATED appName=exit3, pid=" + std::to_string(exit3),
    };
    for (const std::string& line : lines) {
        EXPECT_EQ(1u, daemon_->CountExact(line)) << line;
    }
    // SIGKILL and a plain exit code carry no reason.
    EXPECT_EQ(0u, daemon_->CountLines("STAVIK: appName=killed, pid="));
    EXPECT_EQ(0u, daemon_->CountLines("STAVIK: appName=exit3, pid="));
    EXPECT_EQ(0u, daemon_->CountLines(UNMATCHED_DEATH));
}

size_t DescriptorCount(pid_t pid)
{
    size_t count = 0;
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    while (dirent* entry = dir == nullptr ? nullptr : readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count;
}

// No zombie, exactly one live child per service, the latest one started, and
// an exit status filed for every earlier one.
bool EachServiceHasOneLiveChild(const DaemonProcess& daemon, size_t services)
{
    std::vector<StartLine> starts = daemon.Starts();
    std::map<std::string, pid_t> latest;
    for (const StartLine& start : starts) {
        latest[start.name] = start.pid;
    }
    std::map<pid_t, char> children = ChildrenOf(daemon.Pid());
    bool ok = latest.size() == services && children.size() == services &&
              daemon.CountLines("STAVIK : SetExitStatus ") == starts.size() - services;
    for (const auto& service : latest) {
        ok = ok && children.count(service.second) != 0 && children[service.second] != 'Z';
    }
    return ok;
}

// Several hundred deaths in bursts: every one is reaped and filed with its
// record, the daemon's descriptors stay flat, and once the services settle
// each has exactly one live child.
TEST(SupervisionStorm, BurstsOfDeathsLeaveNoZombieNoUnmatchedDeathAndNoDescriptor)
{
    const size_t services = 12;
    Sandbox sandbox;
    const std::string dieFlag = sandbox.Path("/run/storm_on");
    std::vector<AppEntry> specs;
    for (size_t i = 0; i < services; ++i) {
        specs.push_back(ProbeApp("storm_" + std::to_string(10 + i), {"--die-while", dieFlag, "--after-ms", "5",
                                                                     "--exit", "0"}).With("restart", "on-forever"));
    }
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText(specs))});
    // Killed before the boot has filed its record, a child would die unowned.
    ASSERT_NE("", daemon.WaitForLine(" InitBaseApplication end", LOOP_TIMEOUT_MS)) << daemon.Log();
    ASSERT_EQ(services, daemon.Starts().size()) << daemon.Log();

    // The first incarnations live until they are killed together; from then on each dies young.
    sandbox.WriteFile("/run/storm_on", "");
    for (const StartLine& start : daemon.Starts()) {
        kill(start.pid, SIGKILL);
    }
    ASSERT_TRUE(WaitUntil([&] { return daemon.Starts().size() >= services + 100; }, LOOP_TIMEOUT_MS));
    size_t early = DescriptorCount(daemon.Pid());
    EXPECT_TRUE(WaitUntil([&] { return daemon.Starts().size() >= services + 400; }, LOOP_TIMEOUT_MS));
    // At most one pipe per service is open at any moment; a leak would be one per restart.
    EXPECT_LE(DescriptorCount(daemon.Pid()), early + services);
    unlink(dieFlag.c_str());

    EXPECT_TRUE(WaitUntil([&] { return EachServiceHasOneLiveChild(daemon, services); }, LOOP_TIMEOUT_MS))
        << "starts=" << daemon.Starts().size() << " exit statuses=" << daemon.CountLines("STAVIK : SetExitStatus ")
        << " children=" << ChildrenOf(daemon.Pid()).size();
    EXPECT_EQ(0u, daemon.CountLines(UNMATCHED_DEATH)) << daemon.WaitForLine(UNMATCHED_DEATH, 0);
    EXPECT_EQ(0u, daemon.CountLines("restart failed"));
}

} // namespace
} // namespace Test
} // namespace Stavik
