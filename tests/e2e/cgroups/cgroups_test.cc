// Children, priority applications and the daemon's own threads in a cgroup v1
// tree of plain files, with CPU lists built from the CPUs this test may use.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "resource/core_affinity_mgr.h"
#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const std::string CG = "/sys/fs/cgroup/";
const int CHILD_WAIT_MS = 10000;

// Plain numbers: the list form the daemon reads whole whatever the core numbers.
std::string CpuList(const std::vector<uint32_t>& cpus)
{
    std::string text;
    for (uint32_t cpu : cpus) {
        text += (text.empty() ? "" : ",") + std::to_string(cpu);
    }
    return text;
}

// The ids of a tasks file, each as often as it was appended.
std::multiset<uint32_t> TasksIds(const Sandbox& box, const std::string& group)
{
    std::istringstream in(box.ReadFile(CG + group + "/tasks"));
    return std::multiset<uint32_t>(std::istream_iterator<uint32_t>(in), std::istream_iterator<uint32_t>());
}

// The tree of a board: control and QXCPU cpusets, the daemon's OTHER groups,
// one resource group, a blkio group and a further controller. QXCPU is the
// last usable CPU, which stays a control CPU as well.
void MakeTree(const Sandbox& box, const std::vector<uint32_t>& cpus)
{
    for (const std::string group : {"cpu/OTHER", "memory/OTHER", "cpuset/CtrlCPU", "cpuset/QXCPU", "cpu/grpA",
                                     "memory/grpA", "blkio/io1", "pids/p1", "freezer/a..b"}) {
        box.WriteFile(CG + group + "/tasks", "");
    }
    box.WriteFile(CG + "cpuset/CtrlCPU/cpuset.cpus", CpuList(cpus) + "\n");
    box.WriteFile(CG + "cpuset/QXCPU/cpuset.cpus", std::to_string(cpus.back()) + "\n");
    box.WriteFile("/usr/bin/qel/env.cfg", "# host cgroup settings\nHOST_CPU_SWITCH=1\nHOST_CPU_SET=grpA:50\n");
    box.WriteFile("/proc/cmdline", "console=ttyAMA0 cgroup1_writeback\n");
}

AppEntry Bound(const std::string& name, uint32_t cpu)
{
    return ProbeApp(name).With("core_affinity", "[" + std::to_string(cpu) + "]");
}

// Each child in exactly the tasks files its manifest names, missing ones told
// in list order, children bound to their cores. The start is a quick one: a
// priority application runs unplaced until the continue point; then it and
// each of its threads join its groups and its core.
TEST(CgroupRun, ChildrenPriorityAppsAndDaemonThreadsArePlacedAndBound)
{
    Sandbox box;
    const std::vector<uint32_t> cpus = UsableCpus();
    ASSERT_FALSE(cpus.empty());
    MakeTree(box, cpus);
    AppEntry placed = ProbeApp("placed").With("res_group", "grpA").With("cpuset", "CtrlCPU").With("blkio_group", "io1")
                          .With("cgroup_path", "{pids: p1, net_cls: missing, freezer: a..b}");
    AppEntry prio = Bound("prio", cpus.front()).With("res_group", "grpA").With("startup_priority", "1");
    prio.args = {"--threads", "2"};
    AppEntry zul = ProbeApp("zulmgr");
    zul.startupEntryPath = box.WriteFile("/etc/startup/zulmgr.yaml", AppsText({prio}));
    std::string manifest = box.WriteFile(
        "/etc/base.yaml",
        AppsText({placed, Bound("first", cpus.front()), Bound("last", cpus.back()), Bound("outside", 1023), zul}));
    DaemonProcess daemon(box, {manifest, "true"});
    ASSERT_FALSE(daemon.WaitForLine("InitPriorityApps start priority apps finish", CHILD_WAIT_MS).empty())
        << daemon.Log();
    std::vector<StartLine> starts = daemon.Starts("Start priority generalApp success");
    ASSERT_EQ(1u, starts.size()) << daemon.Log();
    const uint32_t prioPid = static_cast<uint32_t>(starts[0].pid);
    // The main thread and its two workers; a sanitizer's runtime may add one of its own.
    std::set<uint32_t> tids;
    ASSERT_TRUE(WaitUntil([&] {
        tids.clear();
        return CoreAffinityMgr::GetTids(prioPid, tids) && tids.size() >= 3;
    }, CHILD_WAIT_MS));
    EXPECT_TRUE(TasksIds(box, "cpu/grpA").empty());
    daemon.Signal(SIGCONT);
    ASSERT_FALSE(daemon.WaitForLine("Start baseApp success appName=placed", CHILD_WAIT_MS).empty()) << daemon.Log();
    ASSERT_FALSE(daemon.WaitForLine("Start baseApp success appName=last", CHILD_WAIT_MS).empty()) << daemon.Log();
    const uint32_t pid = static_cast<uint32_t>(daemon.StartedPids("placed").at(0));

    // Missing files give their sentences in list order and the child still runs.
    const std::string missing = "add to group failed, cgroup path=" + box.Path(CG + "net_cls/missing/tasks") +
                                " is not existed;add to group failed, cgroup path=" +
                                box.Path(CG + "memory/io1_MEMORY/tasks") + " is not existed;";
    EXPECT_FALSE(daemon.WaitForLine("app=placed,pid=" + std::to_string(pid) + "," + missing, CHILD_WAIT_MS).empty())
        << daemon.Log();
    EXPECT_TRUE(ProcessAlive(static_cast<pid_t>(pid)));
    for (const std::string group : {"cpuset/CtrlCPU", "cpu/grpA", "memory/grpA", "pids/p1", "blkio/io1"}) {
        EXPECT_EQ(1u, TasksIds(box, group).count(pid)) << group;
    }
    EXPECT_TRUE(TasksIds(box, "freezer/a..b").empty());
    EXPECT_EQ(0u, TasksIds(box, "cpu/OTHER").count(pid));

    // Each bound child runs on its core; the QXCPU core adds it to QXCPU.
    for (const auto& bound : {std::make_pair("first", cpus.front()), std::make_pair("last", cpus.back())}) {
        uint32_t child = static_cast<uint32_t>(daemon.StartedPids(bound.first).at(0));
        EXPECT_TRUE(WaitUntil([&] { return AllowedList(child, child) == std::to_string(bound.second); }, CHILD_WAIT_MS))
            << bound.first << " " << AllowedList(child, child);
        EXPECT_EQ(bound.second == cpus.back() ? 1u : 0u, TasksIds(box, "cpuset/QXCPU").count(child)) << bound.first;
    }
    EXPECT_GE(daemon.IndexOf("CheckIsCtrlCpu app=outside, coreId=1023 is not in CtrlCpu"), 0) << daemon.Log();
    EXPECT_TRUE(daemon.StartedPids("outside").empty());

    // The daemon's threads, and nothing else, are in its three groups.
    const uint32_t self = static_cast<uint32_t>(daemon.Pid());
    const std::multiset<uint32_t> other = TasksIds(box, "cpu/OTHER");
    for (uint32_t tid : other) {
        EXPECT_FALSE(AllowedList(self, tid).empty()) << tid << " is no thread of the daemon";
        EXPECT_LE(1u, TasksIds(box, "cpuset/CtrlCPU").count(tid)) << tid;
    }
    EXPECT_TRUE(other.count(self) > 0 && std::set<uint32_t>(other.begin(), other.end()).size() >= 3);
    EXPECT_EQ(other, TasksIds(box, "memory/OTHER"));
    EXPECT_GE(daemon.IndexOf("hostCpuSwitch=1, BlkIoSwitch=1, BufferIoSwitch=1, isCfgOk=1"), 0) << daemon.Log();
    EXPECT_GE(daemon.IndexOf("STAVIK: CgroupMgr cfg: policy HOST_CPU_SET=grpA:50;"), 0) << daemon.Log();
    ASSERT_FALSE(daemon.WaitForLine("ContinueStavikInit success", CHILD_WAIT_MS).empty()) << daemon.Log();
    for (uint32_t tid : tids) {
        for (const std::string group : {"cpu/grpA", "memory/grpA", "cpuset/CtrlCPU"}) {
            EXPECT_LE(1u, TasksIds(box, group).count(tid)) << group << " " << tid;
        }
        EXPECT_EQ(0u, TasksIds(box, "cpu/OTHER").count(tid));
        EXPECT_EQ(std::to_string(cpus.front()), AllowedList(prioPid, tid)) << tid;
    }
}

} // namespace
} // namespace Test
} // namespace Stavik
