// The cpuset.cpus reader and the bookkeeping of bound threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "resource/core_affinity_mgr.h"
#include "tests/support/daemon_process.h"

namespace Stavik {
namespace {

using Cpus = std::vector<uint32_t>;

TEST(CpusetCpus, ListForms)
{
    Stavik::Test::Sandbox box;
    const std::vector<std::pair<std::string, Cpus>> cases = {
        {"0-3,8-11\n", {0, 1, 2, 3, 8, 9, 10, 11}},
        {"0-3,7", {0, 1, 2, 3}}, // a lone number beside a range is lost
        {"2,5,12,x,,130\n", {2, 5, 12, 130}},
        {"10-12", {10, 11, 12}},
        {"0-", {0}}, // a trailing "-" is an upper bound of 0
        {"3-", {}},
        {"-2", {0, 1, 2}},
        // At most two digits per bound, those next to the "-": 100-101 reads as 00-10.
        {"1-2,100-101", {1, 2, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {"", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, ReadCpusetCpus(box.WriteFile("/cpus", c.first))) << c.first;
    }
    EXPECT_TRUE(ReadCpusetCpus(box.Path("/none")).empty());
}

TEST(ThreadBookkeeping, ReusedIdsAndRecycling)
{
    // A process of three workers; no CPU lists, so each bind fails for want of
    // control CPUs and the entry stays.
    // The probe ends however the test ends: one left running would hold the
    // test's output open and stall the whole run until its timeout.
    Stavik::Test::DaemonProcess probe(Stavik::Test::BuiltProgram("tests/probe_child"), {"--threads", "3"}, {});
    ASSERT_GT(probe.Pid(), 0);
    const uint32_t pid = static_cast<uint32_t>(probe.Pid());
    ThreadCoreInfo stored;
    stored.pid = pid;
    strncpy(stored.threadName, "probe_worker", THREAD_NAME_SIZE);
    // A sanitizer's runtime may add a thread of its own beside the workers.
    std::set<uint32_t> tids;
    ASSERT_TRUE(Stavik::Test::WaitUntil([&] {
        tids.clear();
        return CoreAffinityMgr::GetTids(pid, tids) &&
               std::count_if(tids.begin(), tids.end(), [&](uint32_t tid) {
                   return CoreAffinityMgr::CheckTidIsValid(pid, tid, stored);
               }) == 3;
    }));
    CoreAffinityMgr mgr;
    for (uint32_t tid : tids) {
        EXPECT_EQ(NO_DEFAULT_CPUS, mgr.StoreAndSetCoreAffinity(pid, tid, {}));
    }
    EXPECT_EQ(THREAD_NAME_UNREADABLE, mgr.StoreAndSetCoreAffinity(pid, 0x7ffffff0, {}));
    ASSERT_EQ(tids.size(), mgr.StoredThreadCount());

    // A thread id taken over by another process or thread no longer matches.
    const uint32_t worker = *tids.rbegin();
    EXPECT_TRUE(CoreAffinityMgr::CheckTidIsValid(pid, worker, stored));
    EXPECT_FALSE(CoreAffinityMgr::CheckTidIsValid(pid + 1, worker, stored));
    strncpy(stored.threadName, "probe_child", THREAD_NAME_SIZE);
    EXPECT_FALSE(CoreAffinityMgr::CheckTidIsValid(pid, worker, stored));

    // One recycle removes one entry; live threads survive the dead-thread sweep.
    mgr.RecycleThreadCoreInfo(pid, "probe");
    mgr.RecycleThreadCoreInfo(pid + 1, "nobody");
    mgr.RecycleDeadThreads();
    EXPECT_EQ(tids.size() - 1, mgr.StoredThreadCount());
    probe.KillGroup();
    mgr.RecycleDeadThreads();
    EXPECT_EQ(0u, mgr.StoredThreadCount());
}

} // namespace
} // namespace Stavik
