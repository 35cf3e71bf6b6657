#include <set>
#include <string>

#include "app/app_info.h"
#include "core/log.h"
#include "resource/core_affinity_mgr.h"

namespace Stavik {
namespace App {

bool AppInfo::BindCoreForDelayApp(const std::vector<uint32_t>& cores)
{
    CoreAffinityMgr& mgr = CoreAffinityMgr::Instance();
    std::string errInfo;
    std::vector<uint32_t> own = cores;
    uint32_t processResult = mgr.SetCoreAffinityToOs(static_cast<uint32_t>(pid_), own, errInfo);
    std::set<uint32_t> tids;
    bool result = CoreAffinityMgr::GetTids(static_cast<uint32_t>(pid_), tids) && processResult == 0;
    for (uint32_t tid : tids) {
        std::vector<uint32_t> copy = cores;
        if (mgr.SetCoreAffinityToOs(tid, copy, errInfo) != 0) {
            result = false;
        }
    }
    if (!errInfo.empty()) {
        Syslog(LOG_WARNING, "STAVIK : BindCoreForDelayApp failed err=%s", errInfo.c_str());
    }
    return result;
}

bool AppInfo::CheckMissingTids()
{
    std::set<uint32_t> tids;
    if (!CoreAffinityMgr::GetTids(static_cast<uint32_t>(pid_), tids)) {
        return false;
    }
    bool foundNew = false;
    for (uint32_t tid : tids) {
        if (boundTids_.count(tid) != 0) {
            continue;
        }
        foundNew = true;
        std::string errInfo;
        std::vector<uint32_t> cores = coreAffinity_;
        if (CoreAffinityMgr::Instance().SetCoreAffinityToOs(tid, cores, errInfo) == 0) {
            boundTids_.insert(tid);
        } else {
            Syslog(LOG_WARNING, "STAVIK : CheckMissingTids SetCoreAffinityToOs failed err=%s", errInfo.c_str());
        }
    }
    return !foundNew;
}

bool AppInfo::ClearAppliedTids()
{
    boundTids_.clear();
    return true;
}

} // namespace App
} // namespace Stavik
