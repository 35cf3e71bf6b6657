#include "app/app_info.h"

namespace Stavik {
namespace App {

BaseAppInfo::BaseAppInfo(const ApplicationManifest& manifest)
    : AppInfo(manifest, manifest.GetAppName(), std::string()),
      dependList_(manifest.GetDependList()),
      isForceTerm_(manifest.GetIsForceTerm()),
      startupEntryPath_(manifest.GetStartupEntryPath()),
      heartBeatSwitch_(manifest.GetHeartBeatSwitch()),
      heartBeatInterval_(manifest.GetHeartBeatInterval()),
      heartBeatCount_(manifest.GetHeartBeatCount())
{
    isReporting_ = manifest.GetIsReporting();
}

} // namespace App
} // namespace Stavik
