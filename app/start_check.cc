#include "app/start_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "app/user_groups.h"
#include "core/boot_context.h"
#include "core/log.h"
#include "core/standardization_path.h"
#include "resource/core_affinity_mgr.h"
#include "supervision/integrity.h"

namespace Stavik {
namespace App {
namespace {

// Texts that would let an argument reach a shell as a command of its own.
const char* const ILLEGAL_TOKENS[] = {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$"};

bool HasIllegalToken(const std::vector<std::string>& arguments)
{
    for (const std::string& argument : arguments) {
        for (const char* token : ILLEGAL_TOKENS) {
            if (argument.find(token) != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

// Execute right by the configured uid, not by the daemon's own rights. The
// "other" bit is never enough on purpose.
bool HasExecRight(const std::string& appName, const std::string& execPath, uint32_t uid, const struct stat& info)
{
    if (uid == 0) {
        if ((info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0) {
            return true;
        }
        Syslog(LOG_ERR, "STAVIK : Start App=%s failed, cfg uid is root, but binPath=%s uid=%u not have x permission !!",
               appName.c_str(), execPath.c_str(), info.st_uid);
        return false;
    }
    if (uid == info.st_uid) {
        if ((info.st_mode & S_IXUSR) != 0) {
            return true;
        }
        Syslog(LOG_ERR, "STAVIK : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u not have x permission !!",
               appName.c_str(), uid, execPath.c_str(), info.st_uid);
        return false;
    }
    if (!IsUserInGroup(uid, info.st_gid)) {
        Syslog(LOG_ERR,
               "STAVIK : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u, gid=%u not have x permission !!",
               appName.c_str(), uid, execPath.c_str(), info.st_uid, info.st_gid);
        return false;
    }
    if ((info.st_mode & S_IXGRP) == 0) {
        Syslog(LOG_ERR, "STAVIK : Start App=%s failed, cfg uid=%u, but binPath=%s gid=%u not have x permission !!",
               appName.c_str(), uid, execPath.c_str(), info.st_gid);
        return false;
    }
    return true;
}

} // namespace

// A priority application of a quick start comes before the CPU lists are
// read; it is checked and placed at the continue point.
bool CheckBeforeStart(const AppInfo& app)
{
    if (!CheckChildProParas(app.appName_, app.execPath_, app.uid_, app.arguments_)) {
        return false;
    }
    if (!IntegrityProtect::Instance().CheckApp(app.execPath_)) {
        Syslog(LOG_ERR, "STAVIK : IntegrityProtect app=%s or sha256sum has been modified", app.execPath_.c_str());
        return false;
    }
    if (app.startupPriority_ != -1 && BootContext::Instance().isQuickStart_) {
        return true;
    }
    return CoreAffinityMgr::Instance().CheckIsCtrlCpu(app.appName_, app.coreAffinity_);
}

bool CheckChildProParas(const std::string& appName, const std::string& execPath, uint32_t uid,
                        const std::vector<std::string>& arguments)
{
    if (HasIllegalToken(arguments)) {
        Syslog(LOG_ERR, "STAVIK : CheckChildProParas App=%s arguments include illegal str", appName.c_str());
        return false;
    }
    if (access(execPath.c_str(), F_OK) != 0) {
        Syslog(LOG_ERR, "STAVIK : Start App=%s failed, binPath=%s is not existed !!!", appName.c_str(),
               execPath.c_str());
        return false;
    }
    std::string resolved;
    if (!StandardizationPath(execPath, resolved)) {
        return false;
    }
    struct stat info {};
    if (stat(resolved.c_str(), &info) != 0) {
        Syslog(LOG_ERR, "STAVIK : Start App=%s failed, stat binPath=%s failed, error=%d", appName.c_str(),
               execPath.c_str(), errno);
        return false;
    }
    return HasExecRight(appName, execPath, uid, info);
}

bool IsUserInGroup(uint32_t uid, uint32_t gid)
{
    UserGroups groups = LookUpUserGroups(uid);
    if (!groups.hasUser || !groups.isListed) {
        return false;
    }
    bool isMember = std::find(groups.slots.begin(), groups.slots.end(), gid) != groups.slots.end();
    return isMember && groups.wipeResult == EOK;
}

} // namespace App
} // namespace Stavik
