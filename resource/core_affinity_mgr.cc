#include "resource/core_affinity_mgr.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "core/log.h"
#include "core/sys_root.h"
#include "resource/tasks_file.h"

namespace Stavik {

const uint32_t CPU_THREAD_COUNT = std::thread::hardware_concurrency();

namespace {

const std::string CTRL_CPUS_FILE = "/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus";
const std::string QXCPU_CPUS_FILE = "/sys/fs/cgroup/cpuset/QXCPU/cpuset.cpus";
const std::string QXCPU_TASKS_FILE = "/sys/fs/cgroup/cpuset/QXCPU/tasks";
constexpr uint32_t MASK_BITS = 1024;

bool Contains(const std::vector<uint32_t>& cpus, uint32_t cpu)
{
    return std::find(cpus.begin(), cpus.end(), cpu) != cpus.end();
}

} // namespace

CoreAffinityMgr& CoreAffinityMgr::Instance()
{
    static CoreAffinityMgr instance;
    return instance;
}

void CoreAffinityMgr::LoadCpuSets()
{
    if (ctrlCpus_.empty()) {
        ctrlCpus_ = ReadCpusetCpus(SysPath(CTRL_CPUS_FILE));
    }
    if (qxcpuCpus_.empty()) {
        qxcpuCpus_ = ReadCpusetCpus(SysPath(QXCPU_CPUS_FILE));
    }
}

CoreBinding CoreAffinityMgr::PlanCoreBinding(std::vector<uint32_t>& cores) const
{
    CoreBinding binding;
    CPU_ZERO(&binding.mask);
    if (cores.empty()) {
        if (ctrlCpus_.empty()) {
            binding.result = NO_DEFAULT_CPUS;
            return binding;
        }
        cores = ctrlCpus_;
    }
    for (uint32_t core : cores) {
        if (core >= CPU_THREAD_COUNT) {
            continue;
        }
        if (Contains(qxcpuCpus_, core)) {
            ++binding.qxcpuWrites;
        }
        if (core < MASK_BITS) {
            CPU_SET(core, &binding.mask);
        }
    }
    binding.qxcpuTasks = SysPath(QXCPU_TASKS_FILE);
    return binding;
}

// An all-zero mask still reaches the kernel, which refuses it.
uint32_t CoreAffinityMgr::SetCoreAffinityToOs(uint32_t tid, std::vector<uint32_t>& cores, std::string& errInfo)
{
    CoreBinding binding = PlanCoreBinding(cores);
    if (binding.result == NO_DEFAULT_CPUS) {
        errInfo += "default ctrl cpu is null;";
        return NO_DEFAULT_CPUS;
    }
    for (uint32_t write = 0; write < binding.qxcpuWrites; ++write) {
        WriteTidToQXcpuSet(tid);
    }
    if (sched_setaffinity(static_cast<pid_t>(tid), sizeof(binding.mask), &binding.mask) != 0) {
        errInfo += "SetCoreAffinity fail pid=" + std::to_string(tid) + ", errno=" + std::to_string(errno) + ";";
        return AFFINITY_REFUSED;
    }
    return 0;
}

void CoreAffinityMgr::WriteTidToQXcpuSet(uint32_t tid) const
{
    const std::string path = SysPath(QXCPU_TASKS_FILE);
    if (!AppendIdToTasks(path.c_str(), tid)) {
        Syslog(LOG_ERR, "WriteTidToQXcpuSet failed tid: %d, qxcpuSet: %s is not existed", static_cast<int>(tid),
               path.c_str());
    }
}

bool CoreAffinityMgr::CheckIsCtrlCpu(const std::string& appName, const std::vector<uint32_t>& cores) const
{
    for (uint32_t core : cores) {
        if (!Contains(ctrlCpus_, core)) {
            Syslog(LOG_ERR, "CheckIsCtrlCpu app=%s, coreId=%u is not in CtrlCpu", appName.c_str(), core);
            return false;
        }
    }
    return true;
}

uint32_t CoreAffinityMgr::StoreAndSetCoreAffinity(uint32_t pid, uint32_t tid, const std::vector<uint32_t>& cores)
{
    Syslog(LOG_INFO, "StoreAndSetCoreAffinity pid:%d tid:%d", static_cast<int>(pid), static_cast<int>(tid));
    ThreadCoreInfo info;
    if (!GetThreadName(pid, tid, info.threadName, sizeof(info.threadName))) {
        Syslog(LOG_ERR, "GetThreadName fail, pid:%d tid:%d, errno: %d", static_cast<int>(pid), static_cast<int>(tid),
               errno);
        return THREAD_NAME_UNREADABLE;
    }
    info.pid = pid;
    info.coreAffinity = cores;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threadCoreInfo_[tid] = info;
    }
    std::vector<uint32_t> bound = cores;
    std::string errInfo;
    uint32_t ret = SetCoreAffinityToOs(tid, bound, errInfo);
    if (ret != 0) {
        Syslog(LOG_ERR, "SetCoreAffinityToOs fail, pid:%d, tid:%d, errStr: %s", static_cast<int>(pid),
               static_cast<int>(tid), errInfo.c_str());
    }
    return ret;
}

void CoreAffinityMgr::RecycleThreadCoreInfo(uint32_t pid, const std::string& appName)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto entry = threadCoreInfo_.begin(); entry != threadCoreInfo_.end(); ++entry) {
        if (entry->second.pid == pid) {
            Syslog(LOG_INFO, "RecycleThreadCoreInfo finished app: %s, tid: %u, pid: %d", appName.c_str(), entry->first,
                   static_cast<int>(pid));
            threadCoreInfo_.erase(entry);
            return;
        }
    }
}

void CoreAffinityMgr::RecycleDeadThreads()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto entry = threadCoreInfo_.begin(); entry != threadCoreInfo_.end();) {
        if (CheckTidIsValid(entry->second.pid, entry->first, entry->second)) {
            ++entry;
        } else {
            entry = threadCoreInfo_.erase(entry);
        }
    }
}

bool CoreAffinityMgr::RecoverCoreAffinity(const std::vector<AppCoreInfo>& apps)
{
    std::string recovered;
    for (const AppCoreInfo& app : apps) {
        std::set<uint32_t> tids;
        if (!GetTids(app.pid, tids)) {
            Syslog(LOG_ERR, "CoreAffinityMgr GetTids fail, pid:%d", static_cast<int>(app.pid));
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (uint32_t tid : tids) {
            recovered += std::to_string(tid) + ",";
            std::vector<uint32_t> cores = app.coreAffinity;
            auto stored = threadCoreInfo_.find(tid);
            if (stored != threadCoreInfo_.end()) {
                if (!CheckTidIsValid(app.pid, tid, stored->second)) {
                    Syslog(LOG_WARNING, "CoreAffinityMgr WakeUpRecover CheckTidIsValid fail, pid:%d, tid:%u",
                           static_cast<int>(app.pid), tid);
                    threadCoreInfo_.erase(stored);
                    continue;
                }
                Syslog(LOG_INFO, "CoreAffinityMgr WakeUpRecover CheckTidIsValid success, pid:%d, tid:%u",
                       static_cast<int>(app.pid), tid);
                cores = stored->second.coreAffinity;
            }
            std::string errInfo;
            if (SetCoreAffinityToOs(tid, cores, errInfo) != 0) {
                Syslog(LOG_WARNING, "RecoverCoreAffinity SetCoreAffinityToOs failed, pid:%d, tid:%u, err=%s",
                       static_cast<int>(app.pid), tid, errInfo.c_str());
            }
        }
    }
    Syslog(LOG_INFO, "CoreAffinityMgr WakeUpRecover tid:%s", recovered.c_str());
    return true;
}

size_t CoreAffinityMgr::StoredThreadCount()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return threadCoreInfo_.size();
}

} // namespace Stavik
