// Fault events and heart-beat checks of named base services, seen from
// outside the real daemon on a board of two devices. The services are demo
// services that report RUNNING themselves and beat when told.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const int WAIT_MS = 20000;
// Beats every 100 ms, lost after 5 silent intervals: the loss is due within
// interval x count plus one interval of the stop; the rest is room for a
// loaded machine.
const int LOSS_BOUND_MS = 600 + 1900;

AppEntry DemoService(const std::string& name, const std::vector<std::string>& args, bool reporting)
{
    AppEntry entry = ProbeApp(name, args);
    entry.binPath = BuiltProgram("examples/stavik-demo-service");
    return reporting ? entry.With("reporting", "true").With("restart", "on-forever") : entry;
}

// Every device's node file of the service holds event, updates and no fault.
bool BothDevicesShow(const Sandbox& sandbox, const std::string& name, const std::string& event,
                     const std::string& updates)
{
    for (const char* device : {"0", "1"}) {
        std::map<std::string, std::string> node = ReadProbeRecord(sandbox.Path("/hal/sensor_" + name + "_dev" + device));
        if (node["event"] != event || node["updates"] != updates || node["fault"] != "0") {
            return false;
        }
    }
    return true;
}

std::string EventLine(const std::string& name, int device, int event)
{
    return "SensorNodeEventReporter ReportEvent success.(nodeName=" + name + ",id=" + std::to_string(device) +
           ",fault=0,event=" + std::to_string(event) + ")";
}

TEST(FaultsRun, DeathsAndSilencesOfNamedServicesRaiseAndClearTheirFaultsOnEveryDevice)
{
    Sandbox sandbox;
    std::vector<AppEntry> services = {
        DemoService("proc_launcher", {"--report-running", "--hb-stop-after", "1000", "--hb-resume-after", "1500"}, true)
            .With("heartbeat", "{enable: true, interval: 100, count: 5}"),
        DemoService("plain_hb", {}, false).With("heartbeat", "{enable: true, interval: 100, count: 3}"),
        DemoService("zulmgr", {"--report-running"}, true),
        DemoService("crasher", {"--exit-after-ms", "200", "--exit-code", "1"}, false)};
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText(services))},
                         {{"HAL_DEV_NUM", "2"}, {"HAL_STATE_DIR", sandbox.Path("/hal")}});

    // Nodes on both devices; the first well report of a fresh node is not sent.
    ASSERT_TRUE(daemon.WaitForExact("STAVIK: SysCheck begin", WAIT_MS)) << daemon.Log();
    EXPECT_EQ(1u, daemon.CountExact("SensorNodeEventReporter GetDeviceNum success. devNum=2"));
    EXPECT_TRUE(WaitUntil([&] { return sandbox.Exists("/hal/sensor_os-memory_dev1"); }, WAIT_MS));
    EXPECT_TRUE(BothDevicesShow(sandbox, "zulmgr", "0", "0"));
    EXPECT_EQ(1u, daemon.CountExact("Register heart beat checker for zulmgr."));
    EXPECT_EQ(1u, daemon.CountExact("Register heart beat checker for proc_launcher."));

    // A silent service is lost within about interval x count plus one interval, and recovers at its next beat.
    ASSERT_FALSE(daemon.WaitForLine("demo-service proc_launcher: heart-beat stopped", WAIT_MS).empty());
    const auto stopped = std::chrono::steady_clock::now();
    const pid_t launcher = daemon.StartedPids("proc_launcher").at(0);
    const std::string beat = "Process heart beat notify. (app=proc_launcher,pid=" + std::to_string(launcher);
    ASSERT_TRUE(daemon.WaitForExact(beat + ",status=lost)", WAIT_MS)) << daemon.Log();
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(LOSS_BOUND_MS));
    EXPECT_LT(daemon.IndexOf("heart-beat stopped"), daemon.IndexOfExact(beat + ",status=lost)"));
    ASSERT_TRUE(daemon.WaitForExact(beat + ",status=recovery)", WAIT_MS)) << daemon.Log();
    EXPECT_LT(daemon.IndexOf("heart-beat resumed"), daemon.IndexOfExact(beat + ",status=recovery)"));
    EXPECT_TRUE(WaitUntil([&] { return BothDevicesShow(sandbox, "proc_launcher", "0", "2"); }, WAIT_MS));

    // A death raises 208 once per device; the new process's RUNNING report clears it.
    const pid_t zulPid = daemon.StartedPids("zulmgr").at(0);
    ASSERT_EQ(0, kill(zulPid, SIGKILL));
    const std::string running = "SK receive BASESERVICE_STATE_REPORT msg from zulmgr report state=RUNNING";
    ASSERT_TRUE(WaitUntil([&] { return BothDevicesShow(sandbox, "zulmgr", "0", "2"); }, WAIT_MS)) << daemon.Log();
    ASSERT_TRUE(WaitUntil([&] { return daemon.CountLines(running) == 2; }, WAIT_MS));
    long death = daemon.IndexOfExact("STAVIK: CheckThread : owner=zulmgr, pid=" + std::to_string(zulPid) +
                                     ", state=TERMINATED unexpectedly terminated.");
    for (int device = 0; device < 2; ++device) {
        // The node file is written before the line reaches the log.
        EXPECT_TRUE(daemon.WaitForExact(EventLine("zulmgr", device, 0), WAIT_MS)) << device;
        EXPECT_EQ(1u, daemon.CountExact(EventLine("zulmgr", device, 1))) << device;
        EXPECT_EQ(1u, daemon.CountExact(EventLine("zulmgr", device, 0))) << device;
        EXPECT_LT(death, daemon.IndexOf(EventLine("zulmgr", device, 1)));
        EXPECT_LT(daemon.IndexOf(running, 1), daemon.IndexOf(EventLine("zulmgr", device, 0)));
    }

    // The other named service's death raises its node too; its restart registers the check again.
    ASSERT_EQ(0, kill(launcher, SIGKILL));
    EXPECT_TRUE(daemon.WaitForExact("STAVIK : Register check for proc_launcher, when Restarting.", WAIT_MS));
    EXPECT_TRUE(WaitUntil([&] { return daemon.CountExact(EventLine("proc_launcher", 1, 1)) == 2; }, WAIT_MS));

    // A service that isn't reporting beats with no check; one outside the node table makes no platform call.
    EXPECT_FALSE(daemon.WaitForLine("HeartBeat: drop beats of plain_hb", WAIT_MS).empty());
    EXPECT_EQ(0u, daemon.CountLines("heart beat checker for plain_hb"));
    EXPECT_TRUE(daemon.WaitForExact("STAVIK : Process crasher removed from the list of executedBaseApp_", WAIT_MS));
    EXPECT_EQ(0u, daemon.CountLines("nodeName=crasher"));
    EXPECT_FALSE(sandbox.Exists("/hal/sensor_crasher_dev0"));
}

} // namespace
} // namespace Test
} // namespace Stavik
