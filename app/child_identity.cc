#include <grp.h>
#include <unistd.h>

#include <cerrno>

#include "app/child_setup.h"

namespace Stavik {
namespace App {
namespace {

using Piece = ChildText::Piece;

// A failed wipe of the passwd record is told but doesn't undo good groups.
bool SetGroups(const UserGroups& groups, ChildText& text)
{
    if (!groups.hasUser) {
        text.Add({"getpwuid is null;"});
        return false;
    }
    bool isSet = groups.isListed && setgroups(static_cast<size_t>(groups.count), groups.slots.data()) != -1;
    if (groups.wipeResult != EOK) {
        text.Add({"SetGroups memset_s failed error=", Piece::Number(groups.wipeResult), ";"});
    }
    return isSet;
}

} // namespace

bool SetAppIdentity(uint32_t uid, uint32_t gid, const UserGroups& groups, ChildText& text)
{
    if (!SetGroups(groups, text)) {
        return false;
    }
    if (setgid(gid) != 0) {
        text.Add({"SetAppGid=", Piece::Number(gid), " failed error=", Piece::Number(errno), ";"});
        return false;
    }
    if (setuid(uid) != 0) {
        text.Add({"SetAppUid=", Piece::Number(uid), ",failed error=", Piece::Number(errno), ";"});
        return false;
    }
    return true;
}

} // namespace App
} // namespace Stavik
