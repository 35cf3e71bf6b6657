#ifndef STAVIK_APP_CHILD_SHAREPOOL_H
#define STAVIK_APP_CHILD_SHAREPOOL_H

#include <string>
#include <vector>

#include "app/app_info.h"
#include "app/child_plan.h"

// Sharepool groups of a new child, for the applications that share memory
// with the data plane (IsSharepoolApp); a base service passes its own name as
// the owner and an empty group list.

namespace Stavik {
namespace App {

// Parent, before the fork: the two variables in the child's environment, the
// failures of the group checks among the fragments.
void PlanSharepoolEnv(const std::string& ownerName, const AppInfo& app,
                      const std::vector<SharepoolGroupsInfo>& groups, ChildPlan& plan);
// Parent, after the fork: joins the child's pid to its groups.
void JoinSharepoolGroups(const std::string& ownerName, const AppInfo& app,
                         const std::vector<SharepoolGroupsInfo>& groups);

} // namespace App
} // namespace Stavik

#endif
