#include "app/app_info.h"

namespace Stavik {
namespace App {

GeneralAppInfo::GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest,
                               const std::string& ownerName)
    : AppInfo(manifest, appName, ownerName),
      nice_(manifest.GetNice()),
      isForceTerm_(manifest.GetIsForceTerm()),
      sharepoolGroups_(manifest.GetSharepoolGroups()),
      heartBeatSwitch_(manifest.GetHeartBeatSwitch()),
      heartBeatInterval_(manifest.GetHeartBeatInterval()),
      heartBeatCount_(manifest.GetHeartBeatCount()),
      processType_(manifest.GetProcessType())
{
    ComputeDynamicMembers(manifest);
}

void GeneralAppInfo::UpdateAppInfo(const ApplicationManifest& manifest)
{
    appName_ = manifest.GetAppName();
    coreAffinity_ = manifest.GetCoreAffinity();
    resGroupName_ = manifest.GetResGroupName();
    execPath_ = manifest.GetBinPath();
    arguments_ = manifest.GetArguments();
    uid_ = manifest.GetUid();
    gid_ = manifest.GetGid();
    nice_ = manifest.GetNice();
    env_ = manifest.GetEnvArgv();
    isForceTerm_ = manifest.GetIsForceTerm();
    termTimeOut_ = manifest.GetTermTimeOut();
    sharepoolGroups_ = manifest.GetSharepoolGroups();
    securityCon_ = manifest.GetSecurityCon();
    cpuset_ = manifest.GetCpuset();
    heartBeatSwitch_ = manifest.GetHeartBeatSwitch();
    heartBeatInterval_ = manifest.GetHeartBeatInterval();
    heartBeatCount_ = manifest.GetHeartBeatCount();
    vfId_ = manifest.GetVfId();
    blkioGroupName_ = manifest.GetBlkioGroupName();
    cgroupPath_ = manifest.GetCGroupPath();
    ApplySchedSettings(manifest);
}

} // namespace App
} // namespace Stavik
