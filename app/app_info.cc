#include "app/app_info.h"

#include "app/home_env.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

constexpr int32_t RT_PRIO_MAX = 99;

// Decimal real-time priority of the manifest: 0 when the text has no effect
// (too large, or zero), -1 when it holds a byte that is not a digit.
int32_t ParseRtPrioText(const std::string& text)
{
    int32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
        if (value > RT_PRIO_MAX) {
            return 0;
        }
    }
    return value;
}

} // namespace

AppInfo::AppInfo(const ApplicationManifest& manifest, const std::string& appName, const std::string& ownerName)
    : appName_(appName),
      uid_(manifest.GetUid()),
      gid_(manifest.GetGid()),
      coreAffinity_(manifest.GetCoreAffinity()),
      resGroupName_(manifest.GetResGroupName()),
      execPath_(manifest.GetBinPath()),
      arguments_(manifest.GetArguments()),
      env_(manifest.GetEnvArgv()),
      termTimeOut_(manifest.GetTermTimeOut()),
      homeEnv_(DaemonHomeEnv()),
      securityCon_(manifest.GetSecurityCon()),
      cpuset_(manifest.GetCpuset()),
      restart_(manifest.GetRestart()),
      ownerName_(ownerName),
      nodeType_(manifest.GetNodeType()),
      startupPriority_(manifest.GetStartupPriority()),
      isDelayCoreAffinity_(manifest.GetIsDelayCoreAffinity()),
      vfId_(manifest.GetVfId()),
      isDynamicPara_(manifest.GetIsDynamicPara()),
      blkioGroupName_(manifest.GetBlkioGroupName()),
      cgroupPath_(manifest.GetCGroupPath()),
      numaType_(manifest.GetNumaType())
{
    ApplySchedSettings(manifest);
}

void AppInfo::ApplySchedSettings(const ApplicationManifest& manifest)
{
    ParseRtPrio(manifest);
    ApplySchedFromCore();
    if (coreAffinity_.empty()) {
        isDelayCoreAffinity_ = false;
    }
}

void AppInfo::ParseRtPrio(const ApplicationManifest& manifest)
{
    std::string prioText = manifest.GetSetRtPrio();
    std::string typeText = manifest.GetSetRtType();
    needRtLimit_ = false;
    schedPolicy_ = SK_SCHED_UNCHANGED;
    rtPrio_ = -1;
    if (prioText.empty() || prioText == "false") {
        return;
    }
    if (prioText == "true") {
        // The process may raise its own priority later; no class is set for it.
        needRtLimit_ = true;
        return;
    }
    int32_t prio = ParseRtPrioText(prioText);
    if (prio < 0) {
        Syslog(LOG_INFO, "STAVIK : %s, set_rt_prio has invalid char=%s", appName_.c_str(), prioText.c_str());
        return;
    }
    if (prio == 0) {
        return;
    }
    if (typeText == "SCHED_FIFO") {
        schedPolicy_ = SK_SCHED_FIFO;
    } else if (typeText == "SCHED_RR") {
        schedPolicy_ = SK_SCHED_RR;
    } else {
        return;
    }
    needRtLimit_ = true;
    rtPrio_ = prio;
    Syslog(LOG_INFO, "STAVIK : %s, rtPrio=%d, rtPolicy=%s", appName_.c_str(), rtPrio_, typeText.c_str());
}

void AppInfo::ApplySchedFromCore()
{
    if (coreAffinity_.empty() || coreAffinity_.front() != CORE_AFFINITY_RT_SENTINEL) {
        return;
    }
    coreAffinity_.clear();
    schedPolicy_ = SK_SCHED_FIFO;
    rtPrio_ = RT_PRIO_MAX;
    Syslog(LOG_INFO, "STAVIK : %s, update schedPolicy to SCHED_FIFO", appName_.c_str());
}

bool AppInfo::IsRunning() const
{
    return pid_ != 0 && state_ == RUNNING;
}

bool AppInfo::IsRestartPolicyResident() const
{
    return restart_ == RESTART_ON_FAILURE || restart_ == RESTART_ON_FOREVER;
}

} // namespace App
} // namespace Stavik
