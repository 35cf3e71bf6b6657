// The memory check over node files of a sandbox root, with a clock the test
// moves on by hand.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "core/log.h"
#include "supervision/sys_check_server.h"
#include "tests/support/sandbox.h"

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

    void SetFree(const std::string& freeKb)
    {
        sandbox_.WriteFile("/sys/devices/system/node/node0/meminfo",
                           "Node 0 MemTotal: 9999999 kB\nNode 0 MemFree:   " + freeKb + " kB\n");
    }

    std::string Node(const std::string& key) const
    {
        std::string text = sandbox_.ReadFile("/hal/sensor_os-memory_dev0");
        size_t at = text.find(key + "=");
        return at == std::string::npos ? "" : text.substr(at + key.size() + 1, text.find('\n', at) - at - key.size() - 1);
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
}

} // namespace
} // namespace Stavik
