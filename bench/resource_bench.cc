// Cgroups and cores: what they add to each child start, and the sweep of the
// bound-thread bookkeeping that the check thread makes every 21st pass.
//   resource_bench [--benchmark_filter=REGEX]
// Runs in a throw-away sandbox root whose cgroup tree is plain files; the CPU
// lists hold the CPUs this process may use, so every binding is harmless.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"
#include "resource/tasks_file.h"

namespace {

using namespace Stavik;

const int STORED_THREADS = 1000;

void WriteFile(const std::string& path, const std::string& text)
{
    std::string dir = path.substr(0, path.rfind('/'));
    std::string command = "mkdir -p '" + dir + "'";
    if (system(command.c_str()) != 0) {
        abort();
    }
    std::ofstream(path) << text;
}

// The sandbox: a child's five tasks files and the two CPU lists.
struct Tree {
    Tree()
    {
        char pattern[] = "/tmp/stavik-resource-bench.XXXXXX";
        root = mkdtemp(pattern);
        setenv("STAVIK_SYSROOT", root.c_str(), 1);
        cpu_set_t set;
        sched_getaffinity(0, sizeof(set), &set);
        std::string cpus;
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &set)) {
                cpus += (cpus.empty() ? "" : ",") + std::to_string(cpu);
            }
        }
        const std::string cg = root + "/sys/fs/cgroup/";
        WriteFile(cg + "cpuset/CtrlCPU/cpuset.cpus", cpus + "\n");
        WriteFile(cg + "cpuset/QXCPU/cpuset.cpus", "\n");
        for (const char* group : {"cpuset/CtrlCPU", "cpu/grp", "memory/grp", "pids/grp", "blkio/grp"}) {
            WriteFile(cg + group + "/tasks", "");
        }
        WriteFile(root + "/usr/bin/qel/env.cfg", "HOST_CPU_SET=grp:50\n");
        CgroupMgr::Instance().ReadCfg();
        CoreAffinityMgr::Instance().LoadCpuSets();
        info.pid = getpid();
        info.resGroupName = "grp";
        info.cpusetName = "CtrlCPU";
        info.blkioGroupName = "grp";
        info.cgroupPath = {{"pids", "grp"}};
    }
    ~Tree()
    {
        std::string command = "rm -rf '" + root + "'";
        (void)system(command.c_str());
    }

    std::string root;
    CgroupTaskInfo info;
};

Tree& SharedTree()
{
    static Tree tree;
    return tree;
}

// Parent: tasks paths and the mask, made before every fork.
void BM_PrepareChildResources(benchmark::State& state)
{
    Tree& tree = SharedTree();
    for (auto _ : state) {
        std::vector<std::string> paths = CgroupMgr::Instance().TasksPaths(tree.info);
        std::vector<uint32_t> cores;
        CoreBinding binding = CoreAffinityMgr::Instance().PlanCoreBinding(cores);
        benchmark::DoNotOptimize(paths.data());
        benchmark::DoNotOptimize(&binding);
    }
}
BENCHMARK(BM_PrepareChildResources);

// Child: the appends of one start (plain files here; a kernel cgroup also
// moves the task, which is the kernel's cost, not the daemon's).
void BM_ChildCgroupWrites(benchmark::State& state)
{
    Tree& tree = SharedTree();
    std::vector<std::string> paths = CgroupMgr::Instance().TasksPaths(tree.info);
    for (auto _ : state) {
        for (const std::string& path : paths) {
            benchmark::DoNotOptimize(AppendIdToTasks(path.c_str(), tree.info.pid));
        }
    }
    state.counters["files"] = static_cast<double>(paths.size());
}
BENCHMARK(BM_ChildCgroupWrites);

// Child: the affinity call with the prepared mask.
void BM_ChildAffinityCall(benchmark::State& state)
{
    SharedTree();
    std::vector<uint32_t> cores;
    CoreBinding binding = CoreAffinityMgr::Instance().PlanCoreBinding(cores);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sched_setaffinity(0, sizeof(binding.mask), &binding.mask));
    }
}
BENCHMARK(BM_ChildAffinityCall);

// Threads that wait until told to end, each stored as a bound thread.
class StoredThreads {
public:
    explicit StoredThreads(CoreAffinityMgr& mgr)
    {
        const uint32_t pid = static_cast<uint32_t>(getpid());
        for (int i = 0; i < STORED_THREADS; ++i) {
            threads_.emplace_back([this] {
                prctl(PR_SET_NAME, "bench_bound");
                std::unique_lock<std::mutex> lock(mutex_);
                tids_.push_back(static_cast<uint32_t>(syscall(SYS_gettid)));
                cond_.notify_all();
                cond_.wait(lock, [this] { return stop_; });
            });
        }
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this] { return tids_.size() == STORED_THREADS; });
        for (uint32_t tid : tids_) {
            mgr.StoreAndSetCoreAffinity(pid, tid, {});
        }
    }
    ~StoredThreads() { Stop(); }
    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        cond_.notify_all();
        for (std::thread& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

private:
    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<uint32_t> tids_;
    bool stop_ = false;
};

// The steady sweep: 1000 live bound threads, each name read back, none removed.
void BM_RecycleDeadThreadsLive(benchmark::State& state)
{
    SharedTree();
    CoreAffinityMgr mgr;
    mgr.LoadCpuSets();
    StoredThreads threads(mgr);
    for (auto _ : state) {
        mgr.RecycleDeadThreads();
    }
    state.counters["stored"] = static_cast<double>(mgr.StoredThreadCount());
}
BENCHMARK(BM_RecycleDeadThreadsLive)->Unit(benchmark::kMillisecond);

// The sweep after all 1000 threads have ended: every entry is removed.
void BM_RecycleDeadThreadsAllDead(benchmark::State& state)
{
    SharedTree();
    for (auto _ : state) {
        state.PauseTiming();
        CoreAffinityMgr mgr;
        mgr.LoadCpuSets();
        {
            StoredThreads threads(mgr);
        }
        state.ResumeTiming();
        mgr.RecycleDeadThreads();
        state.PauseTiming();
        if (mgr.StoredThreadCount() != 0) {
            state.SkipWithError("dead threads left");
        }
        state.ResumeTiming();
    }
}
BENCHMARK(BM_RecycleDeadThreadsAllDead)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace
