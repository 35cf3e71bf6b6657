#include <exception>
#include <string>

#include "core/boot_context.h"
#include "core/log.h"

namespace Stavik {

// A bad gid leaves the new uid in place: each is stored as soon as it converts.
void BootContext::SetUidAndGid(const std::string& uid, const std::string& gid)
{
    try {
        uid_ = std::stoi(uid);
        gid_ = std::stoi(gid);
        Syslog(LOG_INFO, "SetUidAndGid success. (uid=%u,gid=%u)", static_cast<uint32_t>(uid_),
               static_cast<uint32_t>(gid_));
    } catch (const std::exception& error) {
        Syslog(LOG_ERR, "SetUidAndGid has exception:%s. (uid=%s,gid=%s)", error.what(), uid.c_str(), gid.c_str());
    } catch (...) {
        Syslog(LOG_ERR, "SetUidAndGid has unknown exception. (uid=%s,gid=%s)", uid.c_str(), gid.c_str());
    }
}

void BootContext::GetUidAndGid(int32_t& uid, int32_t& gid) const
{
    uid = uid_;
    gid = gid_;
}

} // namespace Stavik
