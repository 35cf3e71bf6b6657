#include <new>

#include "app/manifest_parser.h"
#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {

// A record built from a static manifest is kept for the daemon's life, so that
// every later request about that name works on the same record.
void StavikDaemon::UpdateAllGeneralAppMap(const std::string& name, const std::string& owner)
{
    if (allGeneralAppMap_.count(name) != 0) {
        return;
    }
    ApplicationManifest manifest;
    {
        std::lock_guard<std::mutex> lock(manifestMutex_);
        auto found = staticManifestMap_.find(name);
        if (found == staticManifestMap_.end()) {
            return;
        }
        manifest = found->second;
    }
    std::shared_ptr<App::GeneralAppInfo> app(new (std::nothrow) App::GeneralAppInfo(name, manifest, owner));
    if (app == nullptr) {
        Syslog(LOG_ERR, "STAVIK : UpdateAllGeneralAppMap failed:  curStartApp is null point");
        return;
    }
    allGeneralAppMap_[name] = app;
}

// Static records first, then a live one, then a new record from the first
// dynamic pattern the name fits. That new record is kept by nobody here: it
// becomes known only when the caller puts it into generalAppMap_.
std::shared_ptr<App::GeneralAppInfo> StavikDaemon::GetGeneralApp(const std::string& name, const std::string& owner)
{
    UpdateAllGeneralAppMap(name, owner);
    auto known = allGeneralAppMap_.find(name);
    if (known != allGeneralAppMap_.end()) {
        return known->second;
    }
    auto live = generalAppMap_.find(name);
    if (live != generalAppMap_.end()) {
        return live->second;
    }
    {
        std::lock_guard<std::mutex> lock(manifestMutex_);
        for (const auto& pattern : dynamicManifestMap_) {
            if (ManifestParser().IsDynamicParaMatch(pattern.first, name)) {
                return std::make_shared<App::GeneralAppInfo>(name, pattern.second, owner);
            }
        }
    }
    Syslog(LOG_ERR, "STAVIK : GetGeneralApp failed: app=%s", name.c_str());
    return nullptr;
}

} // namespace Stavik
