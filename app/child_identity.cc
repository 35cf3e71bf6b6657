#include <grp.h>
#include <unistd.h>

#include <cerrno>

#include "app/child_setup.h"

namespace Stavik {
namespace App {
namespace {

// A failed wipe of the passwd record is told but doesn't undo good groups.
bool SetGroups(const UserGroups& groups, std::string& errInfo)
{
    if (!groups.hasUser) {
        errInfo += "getpwuid is null;";
        return false;
    }
    bool isSet = groups.isListed && setgroups(static_cast<size_t>(groups.count), groups.slots.data()) != -1;
    if (groups.wipeResult != EOK) {
        AppendErrInfo(errInfo, "SetGroups memset_s failed error=%d;", groups.wipeResult);
    }
    return isSet;
}

} // namespace

bool SetAppIdentity(uint32_t uid, uint32_t gid, const UserGroups& groups, std::string& errInfo)
{
    if (!SetGroups(groups, errInfo)) {
        return false;
    }
    if (setgid(gid) != 0) {
        AppendErrInfo(errInfo, "SetAppGid=%u failed error=%d;", gid, errno);
        return false;
    }
    if (setuid(uid) != 0) {
        AppendErrInfo(errInfo, "SetAppUid=%u,failed error=%d;", uid, errno);
        return false;
    }
    return true;
}

} // namespace App
} // namespace Stavik
