#ifndef STAVIK_RESOURCE_CORE_AFFINITY_MGR_H
#define STAVIK_RESOURCE_CORE_AFFINITY_MGR_H

#include <sched.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Stavik {

constexpr uint32_t THREAD_NAME_UNREADABLE = 0xF10600;
constexpr uint32_t NO_DEFAULT_CPUS = 0xF10601;
constexpr uint32_t AFFINITY_REFUSED = 0xF10602;
constexpr size_t THREAD_NAME_SIZE = 16;

// Hardware threads, read once at program start; higher core numbers are dropped.
extern const uint32_t CPU_THREAD_COUNT;

// A bound thread as it was when it was stored: pid and name tell a reused
// thread id apart.
struct ThreadCoreInfo {
    uint32_t pid = 0;
    std::vector<uint32_t> coreAffinity;
    char threadName[THREAD_NAME_SIZE] = {};
};

struct AppCoreInfo {
    uint32_t pid = 0;
    std::vector<uint32_t> coreAffinity; // empty: the control CPUs
};

// A core list turned into what the kernel call needs, so that a freshly forked
// child can apply it with plain system calls.
struct CoreBinding {
    uint32_t result = 0; // 0, or NO_DEFAULT_CPUS when there is nothing to bind to
    cpu_set_t mask;      // 1024 bits
    // The thread goes this often into the QXCPU tasks file: once per QXCPU core.
    uint32_t qxcpuWrites = 0;
    std::string qxcpuTasks;
};

// Reads a cpuset.cpus file. Ranges are read only around each "-", with core
// numbers of at most two digits, so a lone number beside a range is lost.
std::vector<uint32_t> ReadCpusetCpus(const std::string& path);

// The two CPU groups of the board, and the bindings that threads asked for.
// The lists are written only at boot, before anything reads them;
// threadCoreInfo_ is guarded by mutex_, taken inside any application mutex.
class CoreAffinityMgr {
public:
    static CoreAffinityMgr& Instance();
    // Tests build their own; the daemon uses Instance().
    CoreAffinityMgr() = default;

    // Fills each list that is still empty.
    void LoadCpuSets();
    // An empty cores becomes the control CPUs.
    uint32_t SetCoreAffinityToOs(uint32_t tid, std::vector<uint32_t>& cores, std::string& errInfo);
    // The kernel mask of cores, an empty list standing for the control CPUs.
    CoreBinding PlanCoreBinding(std::vector<uint32_t>& cores) const;
    bool CheckIsCtrlCpu(const std::string& appName, const std::vector<uint32_t>& cores) const;
    uint32_t StoreAndSetCoreAffinity(uint32_t pid, uint32_t tid, const std::vector<uint32_t>& cores);
    // Removes one stored thread of the process, the lowest id; the rest are
    // left to RecycleDeadThreads.
    void RecycleThreadCoreInfo(uint32_t pid, const std::string& appName);
    void RecycleDeadThreads();
    bool RecoverCoreAffinity(const std::vector<AppCoreInfo>& apps);
    void WriteTidToQXcpuSet(uint32_t tid) const;

    static bool GetTids(uint32_t pid, std::set<uint32_t>& tids);
    static bool GetThreadName(uint32_t pid, uint32_t tid, char* name, size_t size);
    static bool CheckTidIsValid(uint32_t pid, uint32_t tid, const ThreadCoreInfo& info);

    const std::vector<uint32_t>& CtrlCpus() const { return ctrlCpus_; }
    const std::vector<uint32_t>& QxcpuCpus() const { return qxcpuCpus_; }
    size_t StoredThreadCount();

private:
    std::vector<uint32_t> ctrlCpus_;
    std::vector<uint32_t> qxcpuCpus_;
    std::mutex mutex_;
    std::map<uint32_t, ThreadCoreInfo> threadCoreInfo_;
};

} // namespace Stavik

#endif
