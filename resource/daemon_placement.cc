#include <unistd.h>

#include "core/log.h"
#include "core/stavik_daemon.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"

// The daemon's own threads and the priority applications, which may have
// come up before the cgroup settings were read, go to their places at the
// continue step. Threads can appear meanwhile, so the thread list is read
// twice and the second look places the newcomers.

namespace Stavik {
namespace {

const std::string SK_OTHER = "OTHER";
const std::string CTRL_CPUSET = "CtrlCPU";
const std::string SK_APP_NAME = "STAVIK";

void PlaceDaemonIds(const std::set<uint32_t>& ids)
{
    CgroupTaskInfo info;
    info.appName = SK_APP_NAME;
    info.resGroupName = SK_OTHER;
    info.cpusetName = CTRL_CPUSET;
    for (uint32_t id : ids) {
        info.pid = static_cast<int32_t>(id);
        std::string errInfo;
        if (!CgroupMgr::Instance().AddToCgroup(info, errInfo)) {
            Syslog(LOG_WARNING, "Add sk tids to cgroup tasks failed, errinfo=%s, tid=%u", errInfo.c_str(), id);
        }
    }
}

void PlacePriorityId(const App::GeneralAppInfo& app, uint32_t id)
{
    CgroupTaskInfo info;
    info.appName = app.appName_;
    info.pid = static_cast<int32_t>(id);
    info.resGroupName = app.resGroupName_.empty() ? SK_OTHER : app.resGroupName_;
    info.cpusetName = app.cpuset_.empty() ? CTRL_CPUSET : app.cpuset_;
    info.blkioGroupName = app.blkioGroupName_;
    std::string errInfo;
    if (!CgroupMgr::Instance().AddToCgroup(info, errInfo)) {
        Syslog(LOG_WARNING, "Add priority app to cgroup tasks failed, errinfo=%s, tid=%d", errInfo.c_str(),
               static_cast<int>(id));
    }
    if (app.isDelayCoreAffinity_) {
        return;
    }
    std::vector<uint32_t> cores = app.coreAffinity_;
    std::string bindInfo;
    if (CoreAffinityMgr::Instance().SetCoreAffinityToOs(id, cores, bindInfo) != 0) {
        Syslog(LOG_WARNING, "priority app SetCoreAffinityToOs failed, errinfo=%s, app=%s", bindInfo.c_str(),
               app.appName_.c_str());
    }
}

void PlacePriorityApp(const App::GeneralAppInfo& app)
{
    if (!CoreAffinityMgr::Instance().CheckIsCtrlCpu(app.appName_, app.coreAffinity_)) {
        Syslog(LOG_ERR, "app=%s, pid=%d, core affinity is not in ctrlcpu", app.appName_.c_str(), app.pid_);
    }
    uint32_t pid = static_cast<uint32_t>(app.pid_);
    PlacePriorityId(app, pid);
    std::set<uint32_t> first;
    CoreAffinityMgr::GetTids(pid, first);
    for (uint32_t tid : first) {
        PlacePriorityId(app, tid);
    }
    std::set<uint32_t> second;
    CoreAffinityMgr::GetTids(pid, second);
    for (uint32_t tid : second) {
        if (first.count(tid) == 0) {
            PlacePriorityId(app, tid);
        }
    }
}

} // namespace

void StavikDaemon::SetUpResourceControl()
{
    CoreAffinityMgr::Instance().LoadCpuSets();
    CgroupMgr::Instance().ReadCfg();
    MoveStavikTidsToCgroup();
    MovePriorityAppsToCgroup();
}

void StavikDaemon::MoveStavikTidsToCgroup()
{
    uint32_t self = static_cast<uint32_t>(getpid());
    PlaceDaemonIds({self});
    std::set<uint32_t> first;
    CoreAffinityMgr::GetTids(self, first);
    PlaceDaemonIds(first);
    std::set<uint32_t> second;
    CoreAffinityMgr::GetTids(self, second);
    std::set<uint32_t> newcomers;
    for (uint32_t tid : second) {
        if (first.count(tid) == 0) {
            newcomers.insert(tid);
        }
    }
    PlaceDaemonIds(newcomers);
}

void StavikDaemon::MovePriorityAppsToCgroup()
{
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    for (const auto& entry : generalAppMap_) {
        const App::GeneralAppInfo& app = *entry.second;
        if (app.startupPriority_ != -1 && app.state_ != TERMINATED) {
            PlacePriorityApp(app);
        }
    }
}

} // namespace Stavik
