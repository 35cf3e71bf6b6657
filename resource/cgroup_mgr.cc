#include "resource/cgroup_mgr.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <thread>

#include "core/constants.h"
#include "core/log.h"
#include "core/sys_root.h"
#include "resource/tasks_file.h"
#include "securec.h"

namespace Stavik {

const int32_t CPU_NUM = static_cast<int32_t>(std::thread::hardware_concurrency());

namespace {

const std::string CGROUP_ROOT = "/sys/fs/cgroup/";
const std::string TASKS_FILE = "/tasks";
const std::string BUFFER_IO_SUFFIX = "_MEMORY";
const std::string PERIOD_FILE = "/cpu.cfs_period_us";
const std::string QUOTA_FILE = "/cpu.cfs_quota_us";
constexpr int32_t QUOTA_FLOOR = 1000;
constexpr int32_t QUOTA_UNLIMITED = -1;
constexpr uint8_t CPU_SET_POLICY = 0;

// A group name must stay inside its controller's directory.
bool IsUsableGroup(const std::string& group)
{
    return !group.empty() && group.find("..") == std::string::npos;
}

bool FitsInt32(int64_t value)
{
    return value >= INT32_MIN && value <= INT32_MAX;
}

std::string PolicyName(const CgroupPolicyMsg& msg)
{
    return std::string(msg.groupName, strnlen(msg.groupName, sizeof(msg.groupName)));
}

} // namespace

std::vector<std::string> CgroupMgr::TasksPaths(const CgroupTaskInfo& info) const
{
    std::vector<std::string> paths;
    if (IsUsableGroup(info.cpusetName)) {
        paths.push_back(SysPath(CGROUP_CPUSET) + info.cpusetName + TASKS_FILE);
    }
    if (IsUsableGroup(info.resGroupName)) {
        paths.push_back(SysPath(CGROUP_CPU) + info.resGroupName + TASKS_FILE);
        paths.push_back(SysPath(CGROUP_MEMORY) + info.resGroupName + TASKS_FILE);
    }
    for (const auto& entry : info.cgroupPath) {
        if (IsUsableGroup(entry.second)) {
            paths.push_back(SysPath(CGROUP_ROOT) + entry.first + "/" + entry.second + TASKS_FILE);
        }
    }
    if (IsUsableGroup(info.blkioGroupName) && blkIoSwitch_) {
        paths.push_back(SysPath(CGROUP_BLKIO) + info.blkioGroupName + TASKS_FILE);
        if (bufferIoSwitch_) {
            paths.push_back(SysPath(CGROUP_MEMORY) + info.blkioGroupName + BUFFER_IO_SUFFIX + TASKS_FILE);
        }
    }
    return paths;
}

bool CgroupMgr::AddToCgroup(const CgroupTaskInfo& info, std::string& errInfo) const
{
    bool allDone = true;
    for (const std::string& path : TasksPaths(info)) {
        if (!AppendIdToTasks(path.c_str(), info.pid)) {
            errInfo += "add to group failed, cgroup path=" + path + " is not existed;";
            allDone = false;
        }
    }
    return allDone;
}

// The result is the stream's state right after the number is formatted: a
// value the kernel refuses when the buffer is written out at close goes unseen.
bool CgroupMgr::WriteToCgroup(const std::string& path, int32_t value) const
{
    if (access(path.c_str(), W_OK) != 0) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr WriteToCgroup, access %s fail, errno=%d", path.c_str(), errno);
        return false;
    }
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out.is_open()) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr WriteToCgroup, open %s fail", path.c_str());
        return false;
    }
    out << value;
    return out.good();
}

int32_t QuotaFromPeriod(int64_t period, int32_t percent, int32_t cpuNum)
{
    int64_t product = period * percent;
    if (!FitsInt32(product)) {
        return QUOTA_FLOOR;
    }
    int64_t quota = product / 100 * cpuNum;
    if (!FitsInt32(quota) || quota <= QUOTA_FLOOR) {
        return QUOTA_FLOOR;
    }
    return static_cast<int32_t>(quota);
}

int32_t CgroupMgr::ComputeQuota(const std::string& group, int32_t percent) const
{
    const std::string path = SysPath(CGROUP_CPU) + group + PERIOD_FILE;
    int32_t period = 0;
    std::ifstream in(path);
    if (!in.is_open()) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr open %s fail", path.c_str());
    } else if (!(in >> period)) {
        period = 0;
    }
    return QuotaFromPeriod(period, percent, CPU_NUM);
}

uint32_t CgroupMgr::UpdateCgroup(const CgroupPolicyMsg& msg)
{
    using Handler = uint32_t (CgroupMgr::*)(const CgroupPolicyMsg&);
    static const std::map<uint8_t, Handler> HANDLERS = {{CPU_SET_POLICY, &CgroupMgr::UpdateCpuSet}};
    const std::string name = PolicyName(msg);
    Syslog(LOG_INFO, "STAVIK: CgroupMgr UpdateCgroup begin, groupName=%s, type=%d, isEnable=%d, isCfgOk_=%d",
           name.c_str(), msg.type, msg.isEnable, isCfgOk_);
    if (!isCfgOk_) {
        return CGROUP_UPDATE_FAILED;
    }
    if (policies_.find(name) == policies_.end()) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr UpdateCgroup name=%s policy not found", name.c_str());
        return CGROUP_UPDATE_FAILED;
    }
    auto handler = HANDLERS.find(msg.type);
    if (handler == HANDLERS.end()) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr UpdateCgroup name=%s policy type=%u invalid", name.c_str(), msg.type);
        return CGROUP_UPDATE_FAILED;
    }
    uint32_t ret = (this->*(handler->second))(msg);
    Syslog(LOG_INFO, "STAVIK: CgroupMgr UpdateCgroup finish, ret=%d", static_cast<int>(ret));
    return ret;
}

uint32_t CgroupMgr::UpdateCpuSet(const CgroupPolicyMsg& msg)
{
    uint32_t ret = 0;
    for (const auto& group : policies_[PolicyName(msg)]) {
        int32_t quota = msg.isEnable != 0 ? ComputeQuota(group.first, group.second) : QUOTA_UNLIMITED;
        const std::string path = SysPath(CGROUP_CPU) + group.first + QUOTA_FILE;
        if (!WriteToCgroup(path, quota)) {
            Syslog(LOG_ERR, "STAVIK: CgroupMgr UpdateCpuSet write file=%s fail", path.c_str());
            ret = CGROUP_UPDATE_FAILED;
        }
    }
    return ret;
}

// Goes straight to UpdateCpuSet: what was stored before a bad entry is applied
// even when the settings file as a whole is invalid.
void CgroupMgr::EnableDefaultCpuSet()
{
    if (!hostCpuSwitch_) {
        Syslog(LOG_INFO, "STAVIK: CgroupMgr EnableDefaultCpuSet hostCpuSwitch_=%d", hostCpuSwitch_);
        return;
    }
    CgroupPolicyMsg msg {};
    errno_t copied = strncpy_s(msg.groupName, sizeof(msg.groupName), HOST_CPU_SET.c_str(), sizeof(msg.groupName) - 1);
    if (copied != EOK) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr EnableDefaultCpuSet copy name fail, errno=%d", copied);
        return;
    }
    Syslog(LOG_INFO, "STAVIK: CgroupMgr EnableDefaultCgroupCpu");
    msg.isEnable = 1;
    msg.type = CPU_SET_POLICY;
    (void)UpdateCpuSet(msg);
}

void CgroupMgr::DisableCgroupCpu() const
{
    if (!isCfgOk_) {
        return;
    }
    const std::string root = SysPath(CGROUP_CPU);
    DIR* dir = opendir(root.c_str());
    if (dir == nullptr) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr open dir=%s fail", root.c_str());
        return;
    }
    Syslog(LOG_INFO, "STAVIK: CgroupMgr DisableCgroupCpu");
    while (const struct dirent* entry = readdir(dir)) {
        if (entry->d_type != DT_DIR || strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        (void)WriteToCgroup(root + entry->d_name + QUOTA_FILE, QUOTA_UNLIMITED);
    }
    if (closedir(dir) != 0) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr close dir=%s fail", root.c_str());
    }
}

} // namespace Stavik
