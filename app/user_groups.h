#ifndef STAVIK_APP_USER_GROUPS_H
#define STAVIK_APP_USER_GROUPS_H

#include <sys/types.h>

#include <array>
#include <cstdint>

#include "securec.h"

namespace Stavik {
namespace App {

constexpr int USER_GROUP_SLOTS = 128;

// What the user and group databases say about one uid: whether it has a
// passwd entry, and the group list of that user as getgrouplist gave it.
struct UserGroups {
    bool hasUser = false;
    bool isListed = false;
    int count = 0;
    // All slots; those getgrouplist didn't fill stay 0.
    std::array<gid_t, USER_GROUP_SLOTS> slots{};
    // Result of wiping the passwd record after use.
    errno_t wipeResult = EOK;
};

// Looks the user up. Reentrant calls only, so that any thread may do it; the
// start does it before the fork so that the child takes no lock of the
// databases that another thread of the daemon might hold.
UserGroups LookUpUserGroups(uint32_t uid);

} // namespace App
} // namespace Stavik

#endif
