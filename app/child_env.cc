#include <cerrno>

#include "app/child_setup.h"
#include "app/child_sharepool.h"
#include "core/constants.h"

extern char** environ;

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

// The daemon's own environment, which every child starts from. Only main sets
// a variable, before any thread runs, so it can be read from any thread.
void TakeDaemonEnv(CStringList& env)
{
    for (char** entry = environ; *entry != nullptr; ++entry) {
        env.Append(*entry);
    }
}

// The manifest's variables in key order; the first key setenv would refuse
// ends the walk with the fragment the child would have written.
bool SetManifestEnv(const std::map<std::string, std::string>& manifestEnv, ChildPlan& plan)
{
    for (const auto& entry : manifestEnv) {
        if (!plan.env.SetEnv(entry.first, entry.second)) {
            plan.envFragments += "setenv failed, errno=" + std::to_string(EINVAL) + ";";
            return false;
        }
    }
    return true;
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

void SetHeartBeatEnv(bool heartBeatSwitch, uint32_t interval, uint32_t count, CStringList& env)
{
    if (!heartBeatSwitch) {
        return;
    }
    env.SetEnv(ENV_HEART_BEAT, "1");
    if (interval != 0) {
        env.SetEnv(ENV_HEART_BEAT_INTERVAL, std::to_string(HeartBeatIntervalValue(interval)));
    }
    if (count != 0) {
        env.SetEnv(ENV_HEART_BEAT_COUNT, std::to_string(HeartBeatCountValue(count)));
    }
}

// A sanitizer build of any version gets the runtime the board ships, in front
// of the naming-service library.
void SetAppAsanEnv(const std::map<std::string, std::string>& manifestEnv, CStringList& env)
{
    auto preload = manifestEnv.find(ENV_LD_PRELOAD);
    if (preload != manifestEnv.end() && preload->second.find(ASAN_LIB) != std::string::npos) {
        env.SetEnv(ENV_LD_PRELOAD, ASAN_PRELOAD);
    }
}

} // namespace

// The naming service sets its own variables in the child, over these; it
// touches none that comes after it in the order of the steps.
void BuildGeneralAppEnv(const GeneralAppInfo& app, ChildPlan& plan)
{
    TakeDaemonEnv(plan.env);
    PlanSharepoolEnv(app.ownerName_, app, app.sharepoolGroups_, plan);
    // Data plane services belong to brellan; everything else is management.
    plan.env.SetEnv(ENV_PROC_PLANE, app.ownerName_ == BRELLAN_NAME ? PLANE_DATA : PLANE_MANAGE);
    plan.env.SetEnv(ENV_HOME, app.homeEnv_);
    if (SetManifestEnv(app.env_, plan)) {
        plan.env.SetEnv(ENV_OWNER_NAME, app.ownerName_);
    }
    SetHeartBeatEnv(app.heartBeatSwitch_, app.heartBeatInterval_, app.heartBeatCount_, plan.env);
    SetAppAsanEnv(app.env_, plan.env);
}

void BuildBaseAppEnv(const BaseAppInfo& app, ChildPlan& plan)
{
    TakeDaemonEnv(plan.env);
    PlanSharepoolEnv(app.appName_, app, {}, plan);
    SetManifestEnv(app.env_, plan);
    SetHeartBeatEnv(app.heartBeatSwitch_, app.heartBeatInterval_, app.heartBeatCount_, plan.env);
    plan.env.SetEnv(ENV_HOME, app.homeEnv_);
    SetAppAsanEnv(app.env_, plan.env);
    plan.env.SetEnv(ENV_IS_RESTART, app.reportState_ == TERMINATED_ABNORMAL_EXIT ? "1" : "0");
    if (!app.startupEntryPath_.empty()) {
        plan.env.SetEnv(ENV_STARTUP_ENTRY_PATH, app.startupEntryPath_);
    }
}

} // namespace App
} // namespace Stavik
