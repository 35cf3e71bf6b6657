// The cpuset.cpus reader and the bookkeeping of bound threads.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "resource/core_affinity_mgr.h"
#include "tests/support/sandbox.h"

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

// Threads of this process that wait until told to end, named as a service's would be.
class Workers {
public:
    explicit Workers(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            threads_.emplace_back([this, i] {
                prctl(PR_SET_NAME, "bound_worker");
                std::unique_lock<std::mutex> lock(mutex_);
                tids_[i] = static_cast<uint32_t>(syscall(SYS_gettid));
                cond_.notify_all();
                cond_.wait(lock, [this] { return stop_; });
            });
        }
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this, count] { return std::count(tids_, tids_ + count, 0u) == 0; });
    }
    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        cond_.notify_all();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    uint32_t Tid(size_t i) const { return tids_[i]; }

private:
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable cond_;
    uint32_t tids_[8] = {};
    bool stop_ = false;
};

TEST(ThreadBookkeeping, ReusedIdsAndRecycling)
{
    // No CPU lists: each bind fails for want of control CPUs, the entry stays.
    CoreAffinityMgr mgr;
    const uint32_t pid = static_cast<uint32_t>(getpid());
    Workers workers(3);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(NO_DEFAULT_CPUS, mgr.StoreAndSetCoreAffinity(pid, workers.Tid(i), {}));
    }
    EXPECT_EQ(THREAD_NAME_UNREADABLE, mgr.StoreAndSetCoreAffinity(pid, 0x7ffffff0, {}));
    ASSERT_EQ(3u, mgr.StoredThreadCount());
    std::set<uint32_t> tids;
    ASSERT_TRUE(CoreAffinityMgr::GetTids(pid, tids));
    EXPECT_TRUE(tids.count(pid) == 1 && tids.count(workers.Tid(2)) == 1);

    // A thread id taken over by another process or thread no longer matches.
    ThreadCoreInfo stored;
    stored.pid = pid;
    strncpy(stored.threadName, "bound_worker", THREAD_NAME_SIZE);
    EXPECT_TRUE(CoreAffinityMgr::CheckTidIsValid(pid, workers.Tid(1), stored));
    EXPECT_FALSE(CoreAffinityMgr::CheckTidIsValid(pid + 1, workers.Tid(1), stored));
    strncpy(stored.threadName, "other_name", THREAD_NAME_SIZE);
    EXPECT_FALSE(CoreAffinityMgr::CheckTidIsValid(pid, workers.Tid(1), stored));
    stored.pid = pid + 1;
    EXPECT_FALSE(CoreAffinityMgr::CheckTidIsValid(pid, pid, stored));

    // One recycle removes one entry; live threads survive the dead-thread sweep.
    mgr.RecycleThreadCoreInfo(pid, "workers");
    EXPECT_EQ(2u, mgr.StoredThreadCount());
    mgr.RecycleThreadCoreInfo(pid + 1, "nobody");
    mgr.RecycleDeadThreads();
    EXPECT_EQ(2u, mgr.StoredThreadCount());
    workers.Stop();
    mgr.RecycleDeadThreads();
    EXPECT_EQ(0u, mgr.StoredThreadCount());
}

} // namespace
} // namespace Stavik
