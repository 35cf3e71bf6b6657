#include "app/child_sharepool.h"

#include "resource/sharepool.h"

namespace Stavik {
namespace App {

void PlanSharepoolEnv(const std::string& ownerName, const AppInfo& app,
                      const std::vector<SharepoolGroupsInfo>& groups, ChildPlan& plan)
{
    if (!IsSharepoolApp(ownerName, app.appName_)) {
        return;
    }
    SharepoolCfg::Instance().SetSharepoolEnv(
        app.appName_, groups, [&plan](const std::string& key, const std::string& value) {
            return plan.env.SetEnv(key, value);
        }, plan.envFragments);
}

void JoinSharepoolGroups(const std::string& ownerName, const AppInfo& app,
                         const std::vector<SharepoolGroupsInfo>& groups)
{
    if (!IsSharepoolApp(ownerName, app.appName_)) {
        return;
    }
    const SharepoolCfg& cfg = SharepoolCfg::Instance();
    cfg.AddSharepoolGroup(app.appName_, static_cast<uint32_t>(app.pid_), cfg.GetAppGroups(app.appName_, groups));
}

} // namespace App
} // namespace Stavik
