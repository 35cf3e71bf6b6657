#ifndef STAVIK_RESOURCE_CGROUP_MGR_H
#define STAVIK_RESOURCE_CGROUP_MGR_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Stavik {

constexpr uint32_t CGROUP_UPDATE_FAILED = 0xF1030F;
// The policy of the host settings file applied by EnableDefaultCpuSet.
const std::string HOST_CPU_SET = "HOST_CPU_SET";

// Hardware threads, read once at program start.
extern const int32_t CPU_NUM;

// Where one process or thread goes: groups by controller. appName is only
// carried for the caller.
struct CgroupTaskInfo {
    std::string appName;
    int32_t pid = 0;
    std::string resGroupName;   // under cpu and, with the same name, memory
    std::string cpusetName;
    std::string blkioGroupName;
    std::map<std::string, std::string> cgroupPath; // controller directory to group
};

struct CgroupPolicyMsg {
    char groupName[64];
    uint8_t type;     // 0, the only one known, selects UpdateCpuSet
    uint8_t isEnable; // non-zero applies the limits, zero lifts them
};

// Policy name to group to percent of one CPU's period.
using CgroupPolicies = std::map<std::string, std::map<std::string, int32_t>>;

// The daemon's only writer of the cgroup v1 tree. It reads the host settings
// file once, at the continue step, before any thread uses it; from then on
// its members are only read, so it needs no lock. All failure here is soft.
class CgroupMgr {
public:
    static CgroupMgr& Instance();
    // Tests build their own; the daemon uses Instance().
    CgroupMgr() = default;

    void ReadCfg();
    // The tasks files info names, in the order they are written. A group name
    // that is empty or holds ".." is left out without a word.
    std::vector<std::string> TasksPaths(const CgroupTaskInfo& info) const;
    // Writes the pid into every tasks file of TasksPaths; each missing file
    // adds one sentence to errInfo and makes the result false.
    bool AddToCgroup(const CgroupTaskInfo& info, std::string& errInfo) const;
    bool WriteToCgroup(const std::string& path, int32_t value) const;
    uint32_t UpdateCgroup(const CgroupPolicyMsg& msg);
    uint32_t UpdateCpuSet(const CgroupPolicyMsg& msg);
    void EnableDefaultCpuSet();
    void DisableCgroupCpu() const;

    const CgroupPolicies& Policies() const { return policies_; }
    bool HostCpuSwitch() const { return hostCpuSwitch_; }
    bool IsCfgOk() const { return isCfgOk_; }
    bool BlkIoSwitch() const { return blkIoSwitch_; }
    bool BufferIoSwitch() const { return bufferIoSwitch_; }

private:
    void ReadCfgLines(const std::string& path);
    void HandleItem(const std::string& key, const std::string& value);
    void ParsePolicy(const std::string& key, const std::string& value);
    bool StorePolicy(const std::string& key, const std::string& name, const std::string& number);
    void DetectBlkIo();
    void DumpCfg() const;
    int32_t ComputeQuota(const std::string& group, int32_t percent) const;

    CgroupPolicies policies_;
    bool hostCpuSwitch_ = true;
    bool isCfgOk_ = true;
    bool blkIoSwitch_ = false;
    bool bufferIoSwitch_ = false;
};

// The CPU bandwidth quota for percent of one CPU's period, scaled by cpuNum:
// 1000 microseconds is both the floor and the answer to every overflow.
int32_t QuotaFromPeriod(int64_t period, int32_t percent, int32_t cpuNum);

} // namespace Stavik

#endif
