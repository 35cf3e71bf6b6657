// Owner pipes as the daemon opens them after every start and restart: the
// service's endpoint exists from before exec, so no open waits, nothing
// leaks, and nobody else can take a service's place.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const int BOOT_TIMEOUT_MS = 30000;

size_t DescriptorCount(pid_t pid)
{
    size_t count = 0;
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    for (dirent* entry = dir == nullptr ? nullptr : readdir(dir); entry != nullptr; entry = readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count;
}

std::string FrameOwnerScript()
{
    return std::string(STAVIK_SOURCE_DIR) + "/tests/helpers/frame_owner.py";
}

// A plain program that crashes every 50 ms is given up after five restarts,
// at its own pace: no open of its pipe holds the check thread, which reaps
// another service's death in the same window.
TEST(PipeEndpoint, ACrashLoopOfANonReportingServiceRunsAtItsOwnPace)
{
    Sandbox sandbox;
    AppEntry crasher = ProbeApp("crasher", {"--after-ms", "50", "--no-core", "--signal", "11"});
    crasher.restart = "on-failure";
    AppEntry bystander = ProbeApp("bystander", {"--after-ms", "150", "--exit", "3"});
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText({crasher, bystander}))});
    ASSERT_NE("", daemon.WaitForLine("unexpectedly terminated", BOOT_TIMEOUT_MS)) << daemon.Log();
    auto firstDeath = std::chrono::steady_clock::now();

    std::string refusal = "STAVIK : Process=crasher has restart 5 times in recent";
    EXPECT_NE("", daemon.WaitForLine(refusal, 3000)) << daemon.Log();
    EXPECT_LE(std::chrono::steady_clock::now() - firstDeath, std::chrono::seconds(3));
    EXPECT_EQ(6u, StartedPids(daemon, "crasher").size()) << daemon.Log();
    long bystanderEnd = daemon.IndexOf("Process=bystander");
    EXPECT_LE(0, bystanderEnd) << daemon.Log();
    EXPECT_LT(bystanderEnd, daemon.IndexOf(refusal)) << daemon.Log();
    EXPECT_EQ(0u, daemon.CountLines("RegisterService failed")) << daemon.Log();
}

// 2000 restarts, each opening a new pipe (or finding the service already
// gone): the daemon's descriptors stay flat.
TEST(PipeEndpoint, TwoThousandRestartsLeaveNoDescriptorBehind)
{
    const size_t services = 10;
    const size_t restarts = 2000;
    Sandbox sandbox;
    std::vector<AppEntry> specs;
    for (size_t i = 0; i < services; ++i) {
        specs.push_back(ProbeApp("loop_" + std::to_string(i), {"--after-ms", "5", "--exit", "1"}));
        specs.back().restart = "on-forever";
    }
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText(specs))});
    ASSERT_NE("", daemon.WaitForLine(" InitBaseApplication end", BOOT_TIMEOUT_MS)) << daemon.Log();
    auto restartsSeen = [&] { return daemon.CountLines("will restart now"); };
    ASSERT_TRUE(WaitUntil([&] { return restartsSeen() >= 100; }, 60000)) << daemon.Log().substr(0, 20000);
    size_t early = DescriptorCount(daemon.Pid());
    ASSERT_TRUE(WaitUntil([&] { return restartsSeen() >= restarts; }, 180000)) << restartsSeen();
    size_t late = DescriptorCount(daemon.Pid());
    // At most one pipe per service is open at any moment; a leak would be one per restart.
    EXPECT_LE(late, early + services) << early << " descriptors after 100 restarts, " << late << " after "
                                      << restartsSeen();
}

// A process of another group that binds a service's name first is not taken
// for the service: its pipe is refused and its requests never arrive.
TEST(PipeEndpoint, ASquatterOfAnotherGroupIsRefused)
{
    Sandbox sandbox;
    const std::string path = sandbox.TubixDir() + "/victim";
    DaemonProcess squatter("/usr/bin/setpriv",
                           {"--reuid=4242", "--regid=4242", "--clear-groups", "/usr/bin/python3", FrameOwnerScript(), "squat",
                            path},
                           {{"PATH", getenv("PATH")}});
    ASSERT_TRUE(WaitUntil([&] { return access(path.c_str(), F_OK) == 0; })) << squatter.Log();
    AppEntry victim = ProbeApp("victim", {"--sleep-forever"});
    victim.reporting = true;
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText({victim}))});
    EXPECT_NE("", daemon.WaitForLine("STAVIK : procname=victim RegisterService failed", BOOT_TIMEOUT_MS))
        << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine("has gid 4242, the service has gid 0", 0)) << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine("RegServiceCallBack failed!! ret=-13", 0)) << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine(" InitBaseApplication end", BOOT_TIMEOUT_MS)) << daemon.Log();
    EXPECT_EQ(0u, daemon.CountLines("BASESERVICE_STATE_REPORT msg from victim")) << daemon.Log();
}

// The naming service written in another language against the frame format
// alone: it adopts its endpoint, reports INIT, hears the daemon announce
// itself, and reports RUNNING, which lets the boot go on.
TEST(PipeEndpoint, AnOwnerSpeakingOnlyTheFrameFormatWorks)
{
    Sandbox sandbox;
    AppEntry zulmgr;
    zulmgr.name = "zulmgr";
    zulmgr.binPath = FrameOwnerScript();
    zulmgr.args = {"owner", sandbox.Path("/run/zulmgr.out")};
    zulmgr.reporting = true;
    AppEntry after = ProbeApp("after_zulmgr", {"--sleep-forever"});
    after.depends = {"zulmgr"};
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText({zulmgr, after}))});
    EXPECT_NE("", daemon.WaitForLine("SK receive BASESERVICE_STATE_REPORT msg from zulmgr report state=RUNNING",
                                     BOOT_TIMEOUT_MS))
        << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine("Start baseApp success appName=after_zulmgr", BOOT_TIMEOUT_MS)) << daemon.Log();
    EXPECT_TRUE(WaitUntil([&] { return sandbox.ReadFile("/run/zulmgr.out").find("report=STAVIK") != std::string::npos; }))
        << daemon.Log();
}

} // namespace
} // namespace Test
} // namespace Stavik
