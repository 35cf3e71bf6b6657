#include "app/user_groups.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace Stavik {
namespace App {
namespace {

constexpr size_t PASSWD_STRINGS_DEFAULT = 16384;
// Far beyond any real entry; a database that still answers ERANGE is broken.
constexpr size_t PASSWD_STRINGS_MAX = 64 * 1024 * 1024;

size_t PasswdStringsSize()
{
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    return size > 0 ? static_cast<size_t>(size) : PASSWD_STRINGS_DEFAULT;
}

// The record names the user's home and shell; it is not left lying around.
errno_t WipePasswd(struct passwd& record, std::vector<char>& strings)
{
    errno_t recordResult = memset_s(&record, sizeof(record), 0, sizeof(record));
    errno_t stringsResult = memset_s(strings.data(), strings.size(), 0, strings.size());
    return recordResult != EOK ? recordResult : stringsResult;
}

} // namespace

UserGroups LookUpUserGroups(uint32_t uid)
{
    UserGroups groups;
    struct passwd record {};
    struct passwd* found = nullptr;
    std::vector<char> strings(PasswdStringsSize());
    int result = 0;
    // A user with a long entry needs more room than the system suggests.
    while ((result = getpwuid_r(uid, &record, strings.data(), strings.size(), &found)) == ERANGE &&
           strings.size() < PASSWD_STRINGS_MAX) {
        strings.resize(strings.size() * 2);
    }
    if (result != 0 || found == nullptr) {
        return groups;
    }
    groups.hasUser = true;
    int count = USER_GROUP_SLOTS;
    if (getgrouplist(record.pw_name, record.pw_gid, groups.slots.data(), &count) != -1) {
        groups.isListed = true;
        groups.count = count;
    }
    groups.wipeResult = WipePasswd(record, strings);
    return groups;
}

} // namespace App
} // namespace Stavik
