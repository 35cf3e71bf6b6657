#include <unistd.h>

#include <algorithm>

#include "channel/upload.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "resource/core_affinity_mgr.h"
#include "resource/sharepool.h"

namespace Stavik {
namespace {

const std::string ALL_GROUPS = "all";
const std::string PERMISSION_RW = "rw";
const std::string PERMISSION_ALLOC = "alloc";

bool ProcessExists(int32_t pid)
{
    return access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
}

bool Contains(const std::vector<std::string>& list, const std::string& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

Message::AppStateInfo UploadState(const std::string& name, int32_t pid, uint32_t gid, uint32_t state)
{
    Message::AppStateInfo info;
    info.appName = name;
    info.pid = static_cast<uint32_t>(pid);
    info.gid = gid;
    info.state = state;
    info.reason = REASON_NONE;
    return info;
}

} // namespace

bool StavikDaemon::StartUploadServer()
{
    if (!stavikCfg_.skUploadEnable_) {
        return true;
    }
    SkUpload::SkUploadServer& server = SkUpload::SkUploadServer::Instance();
    if (!server.RegXCallBack()) {
        Syslog(LOG_ERR, "STAVIK: skuplaod RegXCallBack failed");
        return false;
    }
    std::shared_ptr<CallbackGate> gate = callbackGate_;
    server.SetCallBack([gate, this](const SkUpload::LoadAppInfo& info, int32_t fd) {
        bool ok = false;
        gate->Pass([&] { ok = HandleLoadAppInfo(info, fd); });
        return ok;
    });
    return true;
}

bool StavikDaemon::HandleLoadAppInfo(const SkUpload::LoadAppInfo& info, int32_t fd)
{
    if (info.isResume) {
        return true;
    }
    RemoveStaleUploadApp(info);
    if (!AddUploadApp(info, fd)) {
        return false;
    }
    bool reported = ReportAppState({UploadState(info.pidAppName, info.pid, info.gid, RUNNING_NORMAL_START)},
                                   ZUL_MGR_NAME);
    SetUploadAppGroups(info);
    return reported;
}

void StavikDaemon::RemoveStaleUploadApp(const SkUpload::LoadAppInfo& info)
{
    SkUploadAppInfo old;
    {
        std::lock_guard<std::mutex> lock(skUploadAppMutex_);
        auto found = skUploadAppMap_.find(info.pid);
        if (found == skUploadAppMap_.end()) {
            return;
        }
        old = found->second;
        skUploadAppMap_.erase(found);
        Syslog(LOG_INFO, "new skupload app's pid is duplicate with existing skupload app, remove the old one(%s)",
               old.appName.c_str());
    }
    CoreAffinityMgr::Instance().RecycleThreadCoreInfo(static_cast<uint32_t>(info.pid), old.appName);
    ReportAppState({UploadState(old.appName, info.pid, old.gid, TERMINATED_NORMAL_EXIT)}, ZUL_MGR_NAME);
}

bool StavikDaemon::AddUploadApp(const SkUpload::LoadAppInfo& info, int32_t fd)
{
    std::lock_guard<std::mutex> lock(skUploadAppMutex_);
    for (const auto& entry : skUploadAppMap_) {
        if (entry.second.appName != info.pidAppName) {
            continue;
        }
        // A dead namesake stays until the check thread finds it gone.
        if (ProcessExists(entry.first)) {
            Syslog(LOG_ERR, "the --procName=%s that you input is duplicate with existing skupload apps",
                   info.pidAppName.c_str());
            return false;
        }
        break;
    }
    if (IsAppNameStarted(info.pidAppName)) {
        Syslog(LOG_ERR, "the --procName=%s that you input is duplicate with already started apps by sk",
               info.pidAppName.c_str());
        return false;
    }
    skUploadAppMap_.emplace(info.pid, SkUploadAppInfo{info.pidAppName, fd, info.gid});
    return true;
}

bool StavikDaemon::IsAppNameStarted(const std::string& name)
{
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        for (const auto& entry : generalAppMap_) {
            if (entry.second->appName_ == name) {
                return true;
            }
        }
    }
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    for (const App::BaseAppInfo& app : executedBaseApp_) {
        if (app.appName_ == name) {
            return true;
        }
    }
    return false;
}

// White-listed binaries get every group; otherwise the client's lists decide,
// "all" standing for every group, and nothing asked means the default group.
void StavikDaemon::SetUploadAppGroups(const SkUpload::LoadAppInfo& info)
{
    const SharepoolCfg& cfg = SharepoolCfg::Instance();
    std::vector<SharepoolGroupsInfo> groups;
    if (Contains(cfg.WhiteLists(), info.binPath)) {
        for (const SharepoolGroupCfg& group : cfg.Groups()) {
            groups.push_back(
                {group.groupName, group.groupName == DEFAULT_MEM_GROUP ? PERMISSION_ALLOC : PERMISSION_RW});
        }
    } else if (info.rwGroups.empty() && info.allocGroups.empty()) {
        groups.push_back({DEFAULT_MEM_GROUP, PERMISSION_ALLOC});
    } else if (!info.rwGroups.empty() && info.rwGroups.front() == ALL_GROUPS) {
        for (const SharepoolGroupCfg& group : cfg.Groups()) {
            groups.push_back(
                {group.groupName, Contains(info.allocGroups, group.groupName) ? PERMISSION_ALLOC : PERMISSION_RW});
        }
    } else {
        for (const std::string& name : info.rwGroups) {
            groups.push_back({name, PERMISSION_RW});
        }
        for (const std::string& name : info.allocGroups) {
            groups.push_back({name, PERMISSION_ALLOC});
        }
    }
    cfg.AddSharepoolGroup(info.pidAppName, static_cast<uint32_t>(info.pid), groups);
}

void StavikDaemon::CheckSkUploadApps()
{
    std::vector<Message::AppStateInfo> gone;
    {
        std::lock_guard<std::mutex> lock(skUploadAppMutex_);
        for (auto entry = skUploadAppMap_.begin(); entry != skUploadAppMap_.end();) {
            if (ProcessExists(entry->first)) {
                ++entry;
                continue;
            }
            const int32_t pid = entry->first;
            const std::string name = entry->second.appName;
            Syslog(LOG_INFO, "skupload pid=%d, name=%s is not existent", pid, name.c_str());
            gone.push_back(UploadState(name, pid, entry->second.gid, TERMINATED_NORMAL_EXIT));
            entry = skUploadAppMap_.erase(entry);
            CoreAffinityMgr::Instance().RecycleThreadCoreInfo(static_cast<uint32_t>(pid), name);
        }
    }
    if (!gone.empty()) {
        (void)ReportAppState(gone, ZUL_MGR_NAME);
    }
}

} // namespace Stavik
