#include <string>

#include "app/manifest_parser.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {
namespace {

// The owner reads the result as decimal text without a terminator, answered on
// the request's own pipe with its id. The send is not retried and not checked:
// an owner that has gone can't be told anyway.
void SendStartupCfgResult(int32_t fd, const TubixRequest& request, uint32_t result)
{
    std::string text = std::to_string(result);
    TubixResponse response{};
    response.id = request.id;
    response.data = &text[0];
    response.size = static_cast<uint32_t>(text.size());
    (void)TubixSendResponse(fd, response);
}

} // namespace

// A later manifest of the same name replaces the stored one; nothing is ever removed.
void StavikDaemon::StoreManifests(const std::vector<ApplicationManifest>& manifests)
{
    std::lock_guard<std::mutex> lock(manifestMutex_);
    for (const ApplicationManifest& manifest : manifests) {
        if (manifest.GetIsDynamicPara()) {
            dynamicManifestMap_[manifest.GetAppName()] = manifest;
        } else {
            staticManifestMap_[manifest.GetAppName()] = manifest;
        }
    }
}

std::string StavikDaemon::GetStartupEntryPath(const std::string& procName)
{
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    const App::BaseAppInfo* app = FindBaseApp(procName);
    if (app == nullptr) {
        Syslog(LOG_ERR, "STAVIK : GetStartupEntryPath not find procName=%s", procName.c_str());
        return "";
    }
    return app->startupEntryPath_;
}

// Whatever the library delivered before a fault is stored all the same, and
// the owner is always answered 0.
uint32_t StavikDaemon::LoadStartCfgInfo(const Message::StartupCfgInfo& info)
{
    std::vector<ApplicationManifest> manifests;
    if (ManifestParser().ParseYaml(PARAM_TYPE_APP_MANIFEST, info.path, manifests, info.matchData) != 0) {
        Syslog(LOG_ERR, "LoadStartCfgInfo failed, path=%s", info.path.c_str());
    }
    StoreManifests(manifests);
    return 0;
}

// Known records take the new static manifests for their next start; the
// tables are read as they stand, also after a load that failed. Only one of
// the two mutexes is held at a time.
uint32_t StavikDaemon::ReLoadStartCfgInfo(const Message::StartupCfgInfo& info)
{
    uint32_t ret = LoadStartCfgInfo(info);
    if (ret != 0) {
        Syslog(LOG_ERR, "ReLoadStartCfgInfo failed, path=%s", info.path.c_str());
    }
    std::unordered_map<std::string, ApplicationManifest> manifests;
    {
        std::lock_guard<std::mutex> lock(manifestMutex_);
        manifests = staticManifestMap_;
    }
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    for (auto& entry : allGeneralAppMap_) {
        auto found = manifests.find(entry.first);
        if (found != manifests.end()) {
            entry.second->UpdateAppInfo(found->second);
        }
    }
    return ret;
}

// The path in the request is only logged: an owner loads the file its own
// base manifest names and no other.
void StavikDaemon::HandleLoadStartupCfg(const std::string& owner, const Message::StartupCfgInfo& info,
                                        const TubixRequest& request, int32_t fd)
{
    Syslog(LOG_INFO, "%s SK receive LOAD_STARTUP_CFG msg load file=%s", BootStrace(SK_TAG).c_str(),
           info.path.c_str());
    Message::StartupCfgInfo ownInfo = info;
    ownInfo.path = GetStartupEntryPath(owner);
    uint32_t ret = LoadStartCfgInfo(ownInfo);
    Syslog(LOG_INFO, "%s LoadStartCfgInfo finish ret=0x%X, fd=%d", BootStrace(SK_TAG).c_str(), ret, fd);
    SendStartupCfgResult(fd, request, ret);
}

// As in the load, the receive line names the path of the request.
void StavikDaemon::HandleReloadStartupCfg(const std::string& owner, const Message::StartupCfgInfo& info,
                                          const TubixRequest& request, int32_t fd)
{
    Message::StartupCfgInfo ownInfo = info;
    ownInfo.path = GetStartupEntryPath(owner);
    Syslog(LOG_INFO, "%s SK receive RELOAD_STARTUP_CFG msg load file=%s", BootStrace(SK_TAG).c_str(),
           info.path.c_str());
    uint32_t ret = ReLoadStartCfgInfo(ownInfo);
    Syslog(LOG_INFO, "%s ReLoadStartCfgInfo finish ret=0x%X, fd=%d", BootStrace(SK_TAG).c_str(), ret, fd);
    SendStartupCfgResult(fd, request, ret);
}

} // namespace Stavik
