#ifndef STAVIK_APP_START_CHECK_H
#define STAVIK_APP_START_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "app/app_info.h"

namespace Stavik {
namespace App {

// The checks in the parent before either kind of record forks; false refuses
// the start, with one line at the failing check.
bool CheckBeforeStart(const AppInfo& app);

// Arguments free of shell tokens, and a binary that the configured uid may
// execute. The path and the environment may hold any text.
bool CheckChildProParas(const std::string& appName, const std::string& execPath, uint32_t uid,
                        const std::vector<std::string>& arguments);

// Whether gid is among the groups of the user. Unfilled slots of the group
// list count as group 0, so group 0 holds for almost every user.
bool IsUserInGroup(uint32_t uid, uint32_t gid);

} // namespace App
} // namespace Stavik

#endif
