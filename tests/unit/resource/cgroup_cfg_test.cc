// The host settings file, the tasks paths and the CPU quota of CgroupMgr,
// read in a sandbox root.
#include <gtest/gtest.h>

#include <cstdlib>

#include "resource/cgroup_mgr.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

const std::string CFG = "/usr/bin/qel/env.cfg";
const std::string CG = "/sys/fs/cgroup/";

class CgroupCfg : public ::testing::Test {
protected:
    void SetUp() override { setenv("STAVIK_SYSROOT", box_.Root().c_str(), 1); }
    void TearDown() override { unsetenv("STAVIK_SYSROOT"); }

    Stavik::Test::Sandbox box_;
};

struct CfgCase {
    std::string text;
    CgroupPolicies policies;
    bool cfgOk;
    bool cpuSwitch;
};

TEST_F(CgroupCfg, FileFormsStoreWhatTheyShould)
{
    const std::string line510 = "P=" + std::string(508, 'z');
    const std::string longName = std::string(507, 'z');
    const std::vector<CfgCase> cases = {
        {"P='a:10'\nQ=\"b:5\"", {{"P", {{"a", 10}}}, {"Q", {{"b", 5}}}}, true, true},
        {"P='a:10\"", {{"P", {{"'a", 10}}}}, true, true},
        {"HOST_CPU_SWITCH=0", {}, true, false},
        {"HOST_CPU_SWITCH='0'", {}, true, false},
        {"HOST_CPU_SWITCH=00", {}, true, true},
        {"HOST_CPU_SWITCH=0\nHOST_CPU_SWITCH=no", {}, true, true},
        {"HOST_CPU_SWITCH=0\nHOST_CPU_SWITCH=", {}, true, false},
        {"HOST_BLKIO_SWITCH=a:1\nP=a:10;b:20", {{"P", {{"a", 10}, {"b", 20}}}}, true, true},
        {"P=a:10;\nQ=b:1", {{"P", {{"a", 10}}}}, false, true},
        {"P=a:10;20", {{"P", {{"a", 20}}}}, true, true},
        {"P=abc\n=a:1\nP x=a:1\n# Q=b:1\nQ=b:-1\nQ=b:1.5", {}, true, true},
        {"P=a:x\nQ=b:1", {{"P", {{"a", 0}}}}, false, true},
        {"P=a:99999999999", {{"P", {{"a", 0}}}}, false, true},
        {"P=x;y", {}, false, true},
        {line510 + "\nHOST_CPU_SWITCH=0", {}, true, false},
        {line510 + "z\nHOST_CPU_SWITCH=0", {}, true, true},
        // Only the first 511 characters of a longer line count, and nothing behind it is read.
        {"P=" + longName + ":10;" + std::string(100, 'z') + "\nQ=b:1", {{"P", {{longName, 1}}}}, true, true},
    };
    for (const CfgCase& c : cases) {
        box_.WriteFile(CFG, c.text);
        CgroupMgr mgr;
        mgr.ReadCfg();
        EXPECT_EQ(c.policies, mgr.Policies()) << c.text;
        EXPECT_EQ(c.cfgOk, mgr.IsCfgOk()) << c.text;
        EXPECT_EQ(c.cpuSwitch, mgr.HostCpuSwitch()) << c.text;
    }
}

// Placing children with the switches on is proven by the daemon's cgroup runs.
TEST_F(CgroupCfg, WithoutSettingsOrABlkioRootNoBlkioPathIsTaken)
{
    CgroupMgr mgr;
    box_.WriteFile(CG + "blkio/io/tasks", "");
    mgr.ReadCfg();
    EXPECT_FALSE(mgr.IsCfgOk() || mgr.BlkIoSwitch() || mgr.BufferIoSwitch());

    // Only ".." drops a group in silence.
    CgroupMgr noBlkio;
    CgroupTaskInfo info;
    info.pid = 4321;
    info.resGroupName = "a..b";
    info.cpusetName = "../up";
    info.blkioGroupName = "io";
    EXPECT_TRUE(noBlkio.TasksPaths(info).empty());
    std::string errInfo;
    EXPECT_TRUE(noBlkio.AddToCgroup(info, errInfo));
}

TEST_F(CgroupCfg, QuotaFloorOverflowAndPolicyWrites)
{
    EXPECT_EQ(400000, QuotaFromPeriod(100000, 50, 8));
    EXPECT_EQ(1000, QuotaFromPeriod(100000, 0, 8));
    EXPECT_EQ(1000, QuotaFromPeriod(1000, 100, 1));
    EXPECT_EQ(1001, QuotaFromPeriod(100100, 1, 1));
    EXPECT_EQ(1000, QuotaFromPeriod(100000, 30000, 1));   // the product overflows
    EXPECT_EQ(1000, QuotaFromPeriod(100000, 20000, 200)); // the scaled quota overflows
    EXPECT_EQ(1000, QuotaFromPeriod(0, 50, 8));

    box_.WriteFile(CFG, "HOST_CPU_SET=a:50;b:10\nOTHER=c:1\n");
    box_.WriteFile(CG + "cpu/a/cpu.cfs_period_us", "100000\n");
    box_.WriteFile(CG + "cpu/a/cpu.cfs_quota_us", "");
    box_.WriteFile(CG + "cpu/b/cpu.cfs_quota_us", "");
    CgroupMgr mgr;
    mgr.ReadCfg();
    mgr.EnableDefaultCpuSet();
    EXPECT_EQ(std::to_string(QuotaFromPeriod(100000, 50, CPU_NUM)), box_.ReadFile(CG + "cpu/a/cpu.cfs_quota_us"));
    EXPECT_EQ("1000", box_.ReadFile(CG + "cpu/b/cpu.cfs_quota_us"));

    CgroupPolicyMsg msg {"HOST_CPU_SET", 0, 0};
    EXPECT_EQ(0u, mgr.UpdateCgroup(msg));
    EXPECT_EQ("-1", box_.ReadFile(CG + "cpu/a/cpu.cfs_quota_us"));
    EXPECT_EQ(CGROUP_UPDATE_FAILED, mgr.UpdateCgroup({"OTHER", 0, 1})); // no quota file for c
    EXPECT_EQ(CGROUP_UPDATE_FAILED, mgr.UpdateCgroup({"NONE", 0, 1}));
    EXPECT_EQ(CGROUP_UPDATE_FAILED, mgr.UpdateCgroup({"HOST_CPU_SET", 1, 1}));
    box_.WriteFile(CG + "cpu/b/cpu.cfs_quota_us", "5");
    mgr.DisableCgroupCpu();
    EXPECT_EQ("-1", box_.ReadFile(CG + "cpu/b/cpu.cfs_quota_us"));
}

} // namespace
} // namespace Stavik
