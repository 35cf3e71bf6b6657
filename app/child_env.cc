#include <cerrno>
#include <cstdlib>

#include "app/child_setup.h"
#include "core/constants.h"
#include "zul.h"

namespace Stavik {
namespace App {
namespace {

const char ENV_PROC_PLANE[] = "PROC_PLANE";
const char PLANE_DATA[] = "PLANE_DATA";
const char PLANE_MANAGE[] = "PLANE_MANAGE";
const char ENV_HOME[] = "HOME";
const char ENV_OWNER_NAME[] = "OWNER_NAME";
const char ENV_HEART_BEAT[] = "GRP_HB";
const char ENV_HEART_BEAT_INTERVAL[] = "GRP_HB_INTERVAL";
const char ENV_HEART_BEAT_COUNT[] = "GRP_HB_COUNT";
const char ENV_LD_PRELOAD[] = "LD_PRELOAD";
const char ASAN_LIB[] = "libasan.so";
const char ASAN_PRELOAD[] = "libasan.so.4:libzul.so.1";
const char ENV_IS_RESTART[] = "IS_RESTART";
const char ENV_STARTUP_ENTRY_PATH[] = "STARTUP_ENTRY_PATH";

constexpr uint32_t HB_INTERVAL_STEP = 100;
constexpr uint32_t HB_INTERVAL_MAX = 60000;
constexpr uint32_t HB_COUNT_MIN = 3;
constexpr uint32_t HB_COUNT_MAX = 1000;

bool SetEnv(const char* key, const std::string& value)
{
    return setenv(key, value.c_str(), 1) == 0;
}

// Data plane services belong to brellan; everything else is management.
void SetPlaneEnv(const std::string& ownerName, std::string& errInfo)
{
    if (!SetEnv(ENV_PROC_PLANE, ownerName == BRELLAN_NAME ? PLANE_DATA : PLANE_MANAGE)) {
        AppendErrInfo(errInfo, "SetPlaneEnv PROC_PLANE failed errno=%d;", errno);
    }
}

void SetHomeEnvVariableOfSpecificUser(const std::string& homeEnv, std::string& errInfo)
{
    if (!SetEnv(ENV_HOME, homeEnv)) {
        AppendErrInfo(errInfo, "SetHomeEnvVariableOfSpecificUser failed homeEnvValue=%s, errno=%d;", homeEnv.c_str(),
                      errno);
    }
}

// The manifest's variables in key order; the first failure ends the walk.
bool SetManifestEnv(const std::map<std::string, std::string>& env, std::string& errInfo)
{
    for (const auto& entry : env) {
        if (!SetEnv(entry.first.c_str(), entry.second)) {
            AppendErrInfo(errInfo, "setenv failed, errno=%d;", errno);
            return false;
        }
    }
    return true;
}

void InitZulProc(const AppInfo& app, std::string& errInfo)
{
    AppConfig config;
    config.appName = app.appName_;
    config.binPath = app.execPath_;
    if (ZULInitProc(config) < 0) {
        AppendErrInfo(errInfo, "ZULInitProc failed, errno=%d;", errno);
    }
}

// The manifest's numbers are raw; the heart-beat client gets them within its range.
uint32_t HeartBeatIntervalValue(uint32_t interval)
{
    if (interval > 0 && interval < HB_INTERVAL_STEP) {
        return HB_INTERVAL_STEP;
    }
    uint32_t capped = interval < HB_INTERVAL_MAX ? interval : HB_INTERVAL_MAX;
    return capped / HB_INTERVAL_STEP * HB_INTERVAL_STEP;
}

uint32_t HeartBeatCountValue(uint32_t count)
{
    uint32_t capped = count < HB_COUNT_MAX ? count : HB_COUNT_MAX;
    return capped < HB_COUNT_MIN ? HB_COUNT_MIN : capped;
}

void SetHeartBeatEnv(bool heartBeatSwitch, uint32_t interval, uint32_t count, std::string& errInfo)
{
    if (!heartBeatSwitch) {
        return;
    }
    if (!SetEnv(ENV_HEART_BEAT, "1")) {
        AppendErrInfo(errInfo, "SetHeartBeatSwitchEnv  failed errno=%d;", errno);
    }
    if (interval != 0 && !SetEnv(ENV_HEART_BEAT_INTERVAL, std::to_string(HeartBeatIntervalValue(interval)))) {
        AppendErrInfo(errInfo, "SetHeartBeatIntervalEnv  failed errno=%d;", errno);
    }
    if (count != 0 && !SetEnv(ENV_HEART_BEAT_COUNT, std::to_string(HeartBeatCountValue(count)))) {
        AppendErrInfo(errInfo, "SetHeartBeatCountEnv  failed errno=%d;", errno);
    }
}

// A sanitizer build of any version gets the runtime the board ships, in front
// of the naming-service library.
void SetAppAsanEnv(const std::map<std::string, std::string>& env, std::string& errInfo)
{
    auto preload = env.find(ENV_LD_PRELOAD);
    if (preload == env.end() || preload->second.find(ASAN_LIB) == std::string::npos) {
        return;
    }
    if (!SetEnv(ENV_LD_PRELOAD, ASAN_PRELOAD)) {
        AppendErrInfo(errInfo, "SetAppAsanEnv preload failed errno=%d;", errno);
    }
}

} // namespace

// HOME comes first, so that the manifest may override it.
void SetGeneralAppEnv(const GeneralAppInfo& app, std::string& errInfo)
{
    SetPlaneEnv(app.ownerName_, errInfo);
    SetHomeEnvVariableOfSpecificUser(app.homeEnv_, errInfo);
    if (SetManifestEnv(app.env_, errInfo) && !SetEnv(ENV_OWNER_NAME, app.ownerName_)) {
        AppendErrInfo(errInfo, "setenv failed, errno=%d;", errno);
    }
    InitZulProc(app, errInfo);
    SetHeartBeatEnv(app.heartBeatSwitch_, app.heartBeatInterval_, app.heartBeatCount_, errInfo);
    SetAppAsanEnv(app.env_, errInfo);
}

// HOME comes after the manifest's variables: a base service can't override it.
void SetBaseAppEnv(const BaseAppInfo& app, std::string& errInfo)
{
    SetManifestEnv(app.env_, errInfo);
    InitZulProc(app, errInfo);
    SetHeartBeatEnv(app.heartBeatSwitch_, app.heartBeatInterval_, app.heartBeatCount_, errInfo);
    SetHomeEnvVariableOfSpecificUser(app.homeEnv_, errInfo);
    SetAppAsanEnv(app.env_, errInfo);
    if (!SetEnv(ENV_IS_RESTART, app.reportState_ == TERMINATED_ABNORMAL_EXIT ? "1" : "0")) {
        AppendErrInfo(errInfo, "Set restart env failed, errno=%d;", errno);
    }
    if (!app.startupEntryPath_.empty() && !SetEnv(ENV_STARTUP_ENTRY_PATH, app.startupEntryPath_)) {
        AppendErrInfo(errInfo, "Set startup entry path env failed, errno=%d;", errno);
    }
}

} // namespace App
} // namespace Stavik
