// Fault events and heart-beat checks of named base services, seen from
// outside the real daemon on a board of two devices. The services are demo
// services that report RUNNING themselves and beat when told.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "tests/support/daemon_process.h"
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
    AppEntry entry;
    entry.name = name;
    entry.binPath = BuiltProgram("examples/stavik-demo-service");
    entry.args = args;
    entry.reporting = reporting;
    entry.restart = reporting ? "on-forever" : "";
    return entry;
}

std::map<std::string, std::string> NodeFile(const Sandbox& sandbox, const std::string& name, int device)
{
    std::map<std::string, std::string> values;
    std::istringstream lines(ReadWholeFile(sandbox.Path("/hal/sensor_" + name + "_dev" + std::to_string(device))));
    std::string line;
    while (std::getline(lines, line)) {
        size_t equal = line.find('=');
        if (equal != std::string::npos) {
            values[line.substr(0, equal)] = line.substr(equal + 1);
        }
    }
    return values;
}

bool BothDevicesShow(const Sandbox& sandbox, const std::string& name, const std::string& event,
                     const std::string& updates)
{
    for (int device = 0; device < 2; ++device) {
        std::map<std::string, std::string> node = NodeFile(sandbox, name, device);
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

// Index of the n-th line (from 1) holding text, or -1.
long IndexOfNth(const DaemonProcess& daemon, const std::string& text, size_t n)
{
    std::vector<std::string> lines = daemon.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(text) != std::string::npos && --n == 0) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

TEST(FaultsRun, DeathsAndSilencesOfNamedServicesRaiseAndClearTheirFaultsOnEveryDevice)
{
    Sandbox sandbox;
    AppEntry launcher = DemoService(
        "proc_launcher", {"--report-running", "--hb-stop-after", "1000", "--hb-resume-after", "1500"}, true);
    launcher.heartBeat = HeartBeatSpec{true, 100, 5};
    AppEntry plain = DemoService("plain_hb", {}, false);
    plain.heartBeat = HeartBeatSpec{true, 100, 3};
    std::vector<AppEntry> services = {launcher, plain, DemoService("zulmgr", {"--report-running"}, true),
                                      DemoService("crasher", {"--exit-after-ms", "200", "--exit-code", "1"}, false)};
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText(services))},
                         {{"HAL_DEV_NUM", "2"}, {"HAL_STATE_DIR", sandbox.Path("/hal")}});

    // Nodes on both devices; the first well report of a fresh node is not sent.
    ASSERT_TRUE(WaitForExactLine(daemon, "STAVIK: SysCheck begin", WAIT_MS)) << daemon.Log();
    EXPECT_EQ(1u, CountExact(daemon, "SensorNodeEventReporter GetDeviceNum success. devNum=2"));
    EXPECT_TRUE(WaitUntil([&] { return sandbox.Exists("/hal/sensor_os-memory_dev1"); }, WAIT_MS));
    EXPECT_TRUE(BothDevicesShow(sandbox, "zulmgr", "0", "0"));
    EXPECT_EQ(1u, CountExact(daemon, "Register heart beat checker for zulmgr."));
    EXPECT_EQ(1u, CountExact(daemon, "Register heart beat checker for proc_launcher."));

    // A silent service is lost within about interval x count plus one interval, and recovers at its next beat.
    ASSERT_FALSE(daemon.WaitForLine("demo-service proc_launcher: heart-beat stopped", WAIT_MS).empty());
    const auto stopped = std::chrono::steady_clock::now();
    const std::string pid = std::to_string(StartedPids(daemon, "proc_launcher").at(0));
    const std::string lost = "Process heart beat notify. (app=proc_launcher,pid=" + pid + ",status=lost)";
    ASSERT_TRUE(WaitForExactLine(daemon, lost, WAIT_MS)) << daemon.Log();
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - stopped)
                  .count(),
              LOSS_BOUND_MS);
    EXPECT_LT(daemon.IndexOf("heart-beat stopped"), IndexOfExact(daemon, lost));
    const std::string recovery = "Process heart beat notify. (app=proc_launcher,pid=" + pid + ",status=recovery)";
    ASSERT_TRUE(WaitForExactLine(daemon, recovery, WAIT_MS)) << daemon.Log();
    EXPECT_LT(daemon.IndexOf("heart-beat resumed"), IndexOfExact(daemon, recovery));
    EXPECT_TRUE(WaitUntil([&] { return BothDevicesShow(sandbox, "proc_launcher", "0", "2"); }, WAIT_MS));

    // A death raises 208 once per device; the new process's RUNNING report clears it.
    const pid_t zulPid = StartedPids(daemon, "zulmgr").at(0);
    ASSERT_EQ(0, kill(zulPid, SIGKILL));
    const std::string running = "SK receive BASESERVICE_STATE_REPORT msg from zulmgr report state=RUNNING";
    ASSERT_TRUE(WaitUntil([&] { return BothDevicesShow(sandbox, "zulmgr", "0", "2"); }, WAIT_MS)) << daemon.Log();
    ASSERT_TRUE(WaitUntil([&] { return daemon.CountLines(running) == 2; }, WAIT_MS));
    long death = IndexOfExact(daemon, "STAVIK: CheckThread : owner=zulmgr, pid=" + std::to_string(zulPid) +
                                          ", state=TERMINATED unexpectedly terminated.");
    const long secondReport = IndexOfNth(daemon, running, 2);
    for (int device = 0; device < 2; ++device) {
        EXPECT_EQ(1u, CountExact(daemon, EventLine("zulmgr", device, 1))) << device;
        EXPECT_EQ(1u, CountExact(daemon, EventLine("zulmgr", device, 0))) << device;
        EXPECT_LT(death, IndexOfNth(daemon, EventLine("zulmgr", device, 1), 1));
        EXPECT_LT(secondReport, IndexOfNth(daemon, EventLine("zulmgr", device, 0), 1));
    }

    // The other named service's death raises its node too; its restart registers the check again.
    ASSERT_EQ(0, kill(std::stoi(pid), SIGKILL));
    EXPECT_TRUE(WaitForExactLine(daemon, "STAVIK : Register check for proc_launcher, when Restarting.", WAIT_MS));
    EXPECT_TRUE(WaitUntil([&] { return CountExact(daemon, EventLine("proc_launcher", 1, 1)) == 2; }, WAIT_MS));

    // A service that isn't reporting beats with no check; one outside the node table makes no platform call.
    const pid_t plainPid = StartedPids(daemon, "plain_hb").at(0);
    std::map<std::string, std::string> env = ProcessEnviron(plainPid);
    EXPECT_EQ("", MapDiff({{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "3"}},
                          {{"GRP_HB", env["GRP_HB"]}, {"GRP_HB_INTERVAL", env["GRP_HB_INTERVAL"]},
                           {"GRP_HB_COUNT", env["GRP_HB_COUNT"]}}));
    EXPECT_FALSE(daemon.WaitForLine("HeartBeat: drop beats of plain_hb", WAIT_MS).empty());
    EXPECT_EQ(0u, daemon.CountLines("heart beat checker for plain_hb"));
    EXPECT_TRUE(WaitForExactLine(daemon, "STAVIK : Process crasher removed from the list of executedBaseApp_", WAIT_MS));
    EXPECT_EQ(0u, daemon.CountLines("nodeName=crasher"));
    EXPECT_FALSE(sandbox.Exists("/hal/sensor_crasher_dev0"));
}

} // namespace
} // namespace Test
} // namespace Stavik
