// The memory check over node files of a sandbox root, with a clock the test
// moves on by hand.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log.h"
#include "supervision/sys_check_server.h"
#include "tests/support/sandbox.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace {

const uint64_t MINUTE_NS = 60ULL * 1000 * 1000 * 1000;

class MemoryCheck : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        setenv("HAL_STATE_DIR", sandbox_.Path("/hal").c_str(), 1);
        LogCapture::Begin();
    }

    void TearDown() override
    {
        LogCapture::End();
        unsetenv("HAL_STATE_DIR");
        unsetenv("STAVIK_SYSROOT");
    }

    void SetFree(const std::string& freeKb, const std::string& node = "0")
    {
        sandbox_.WriteFile("/sys/devices/system/node/node" + node + "/meminfo",
                           "Node " + node + " MemTotal: 9999999 kB\nNode " + node + " MemFree:   " + freeKb + " kB\n");
    }

    std::string Node(const std::string& key) const
    {
        return ::Stavik::Test::ReadProbeRecord(sandbox_.Path("/hal/sensor_os-memory_dev0"))[key];
    }

    ::Stavik::Test::Sandbox sandbox_;
    SysCheckState state_;
    uint64_t nowNs_ = 5;
    SysCheckServer server_{state_, [this] { return nowNs_; }};
};

TEST_F(MemoryCheck, TheBandHoldsTheFaultAndTheScriptRunsOncePerShortage)
{
    sandbox_.WriteFile("/sys/devices/system/node/has_normal_memory", "0\n");
    sandbox_.WriteFile("/out/runs", "");
    sandbox_.WriteFile("/var/sys_meminfo_monitor.sh", "printf x >> " + sandbox_.Path("/out/runs") + "\n");
    ASSERT_TRUE(server_.Init());
    SetFree("1");
    server_.CheckMemory();
    EXPECT_EQ("0", Node("updates")) << "the first call only starts the clock";

    struct Step {
        uint64_t afterNs;
        std::string freeKb;
        std::string event;
        std::string updates;
        size_t scriptRuns;
    };
    const std::vector<Step> steps = {
        {MINUTE_NS - 1, "1", "0", "0", 0},  // not a minute yet
        {1, "307199", "1", "1", 1},         // shortage: script and fault
        {MINUTE_NS, "307200", "1", "1", 1}, // lower edge is in the band
        {MINUTE_NS, "100", "1", "1", 1},    // the script stays disarmed
        {MINUTE_NS, "512000", "1", "1", 1}, // upper edge is in the band
        {MINUTE_NS, "512001", "0", "2", 1}, // well again, script re-armed
        {MINUTE_NS, "300000", "1", "3", 2},
    };
    for (size_t i = 0; i < steps.size(); ++i) {
        nowNs_ += steps[i].afterNs;
        SetFree(steps[i].freeKb);
        server_.CheckMemory();
        EXPECT_EQ(steps[i].event, Node("event")) << "step " << i;
        EXPECT_EQ(steps[i].updates, Node("updates")) << "step " << i;
        EXPECT_EQ(steps[i].scriptRuns, sandbox_.ReadFile("/out/runs").size()) << "step " << i;
    }
    EXPECT_EQ(2u, LogCapture::Count("Not need reporting system memory shortage. (freeSize="));
    EXPECT_TRUE(LogCapture::Contains("ReportEvent freeSize=300000KB, lowerThreshold=307200KB"));
    server_.Stop();
    EXPECT_FALSE(sandbox_.Exists("/hal/sensor_os-memory_dev0"));

    const std::vector<std::pair<std::string, std::vector<int32_t>>> lists = {
        {"0-2", {0, 1, 2}}, {"5\n", {5}}, {"3-3", {3}}, {"4-2", {}}, {"-3", {}}, {"3-", {}}, {"x", {}}, {"", {}}};
    for (const auto& list : lists) {
        EXPECT_EQ(list.second, server_.ParseNumaNodeList(list.first)) << list.first;
    }
    EXPECT_TRUE(LogCapture::Contains("Get numa node list, exception is thrown out. (str=x,detail=stoi)"));
}

TEST_F(MemoryCheck, NodesOfCoherentDevicesDontCountAndAnUnreadableFileFailsTheReading)
{
    const std::string nodeDir = "/sys/devices/system/node/";
    sandbox_.WriteFile(nodeDir + "has_normal_memory", "0-2,5\n");
    sandbox_.WriteFile(nodeDir + "has_memory", "0-3\n");
    std::set<int32_t> nodes;
    ASSERT_TRUE(server_.GetOsNumaNodes(nodes));
    EXPECT_EQ(std::set<int32_t>({0, 1, 2, 5}), nodes) << "without a device list the normal-memory list counts";
    sandbox_.WriteFile(nodeDir + "is_cdm_node", "1,3\n");
    ASSERT_TRUE(server_.GetOsNumaNodes(nodes));
    EXPECT_EQ(std::set<int32_t>({0, 2}), nodes);

    // A missing node file fails the sum; once there, all nodes add up.
    SetFree("1");
    uint64_t total = 0;
    EXPECT_FALSE(server_.GetFreeMemory(total));
    EXPECT_TRUE(LogCapture::Contains("Cannot open node statistic file " + sandbox_.Path(nodeDir + "node2/meminfo")));
    SetFree("7", "2");
    total = 0;
    EXPECT_TRUE(server_.GetFreeMemory(total));
    EXPECT_EQ(8u, total);

    // A device list that can't be read disables the check for good.
    SysCheckState fresh;
    SysCheckServer server(fresh, [] { return 0; });
    const std::string cdmList = sandbox_.Path(nodeDir + "is_cdm_node");
    ASSERT_EQ(0, unlink(cdmList.c_str()));
    ASSERT_EQ(0, mkdir(cdmList.c_str(), 0755));
    EXPECT_FALSE(server.GetFreeMemory(total));
    EXPECT_TRUE(fresh.isScanFailed);
    ASSERT_EQ(0, rmdir(cdmList.c_str()));
    const size_t scans = LogCapture::Count("Get numa node ");
    EXPECT_FALSE(server.GetFreeMemory(total));
    EXPECT_EQ(scans, LogCapture::Count("Get numa node "));
}

} // namespace
} // namespace Stavik
