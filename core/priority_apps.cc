#include <algorithm>
#include <set>

#include "app/manifest_parser.h"
#include "boot/boot_mark.h"
#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/sk_log.h"
#include "core/stavik_daemon.h"

namespace Stavik {
namespace {

const int32_t NO_STARTUP_PRIORITY = -1;

// The entries of one start-up file that carry a priority go onto the heap, and
// their manifests into `manifests`. A file that doesn't read gives nothing.
// A name already collected, from this file or an earlier one, keeps its
// first entry: one record can have only one process.
void CollectPriorityApps(const ApplicationManifest& base, PriorityAppList& list,
                         std::vector<ApplicationManifest>& manifests, std::set<std::string>& names)
{
    const std::string entryPath = base.GetStartupEntryPath();
    SK_LOG(LOG_INFO, "stavik-daemon Load startupEntryPath=%s cfg", entryPath.c_str());
    std::vector<ApplicationManifest> subEntries;
    (void)ManifestParser().ParseYaml(PARAM_TYPE_APP_MANIFEST, entryPath, subEntries, {});
    for (const ApplicationManifest& sub : subEntries) {
        const int32_t priority = sub.GetStartupPriority();
        if (priority == NO_STARTUP_PRIORITY) {
            continue;
        }
        if (!names.insert(sub.GetAppName()).second) {
            SK_LOG(LOG_ERR, "stavik-daemon %s names priority app name=%s again, the later entry is ignored",
                   entryPath.c_str(), sub.GetAppName().c_str());
            continue;
        }
        SK_LOG(LOG_INFO, "stavik-daemon load startup priority app name=%s, startup priority=%d, owner=%s",
               sub.GetAppName().c_str(), priority, base.GetAppName().c_str());
        list.push_back(PriorityAppEntry{priority, sub.GetAppName(), base.GetAppName(), sub});
        std::push_heap(list.begin(), list.end(), PriorityAppAfter());
        manifests.push_back(sub);
    }
}

} // namespace

void StavikDaemon::InitPriorityApps(const std::string& yamlPath)
{
    PriorityAppList list;
    if (LoadStartCfgInfo(yamlPath, list) != 0) {
        SK_LOG(LOG_ERR, "stavik-daemon InitPriorityApps failed LoadStartCfgInfo failed");
        return;
    }
    SK_LOG(LOG_INFO, "%s InitPriorityApps load priority apps cfg finish", BootStrace(SK_TAG).c_str());
    StartPriorityApps(list);
    SK_LOG(LOG_INFO, "%s InitPriorityApps start priority apps finish", BootStrace(SK_TAG).c_str());
    BootContext::Instance().BootMark(BOOT_MARK_PRIORITY_APPS);
}

// At boot only the manifests of priority applications become known; the rest
// of a start-up file waits for its owner's LOAD_STARTUP_CFG.
uint32_t StavikDaemon::LoadStartCfgInfo(const std::string& yamlPath, PriorityAppList& list)
{
    std::vector<ApplicationManifest> baseEntries;
    if (ManifestParser().ParseYaml(PARAM_TYPE_APP_MANIFEST, yamlPath, baseEntries, {}) != 0) {
        SK_LOG(LOG_ERR, "stavik-daemon LoadStartCfgInfo=%s failed", yamlPath.c_str());
        return Message::SK_ERR_LOAD_STARTUP_CFG;
    }
    std::vector<ApplicationManifest> priorityManifests;
    std::set<std::string> names;
    for (const ApplicationManifest& base : baseEntries) {
        if (!base.GetStartupEntryPath().empty()) {
            CollectPriorityApps(base, list, priorityManifests, names);
        }
    }
    StoreManifests(priorityManifests);
    return 0;
}

// One hold of generalAppMutex_ covers the fork and the insertion, so that the
// wait thread finds the record even for a child that dies at once. A failed
// start stays out of generalAppMap_ and stops neither the loop nor the boot.
void StavikDaemon::StartPriorityApps(PriorityAppList& list)
{
    while (!list.empty()) {
        std::pop_heap(list.begin(), list.end(), PriorityAppAfter());
        const PriorityAppEntry entry = std::move(list.back());
        list.pop_back();

        std::lock_guard<std::mutex> lock(generalAppMutex_);
        std::shared_ptr<App::GeneralAppInfo> app = GetGeneralApp(entry.appName, entry.ownerName);
        if (app == nullptr) {
            SK_LOG(LOG_ERR, "STAVIK :StartPriorityApps : appName=%s is nullptr", entry.appName.c_str());
            continue;
        }
        app->isStartedAsPriority_ = true;
        if (!app->StartProcess()) {
            app->state_ = TERMINATED;
            app->reportState_ = TERMINATED_ABNORMAL_EXIT;
            SK_LOG(LOG_INFO, "%s Start priority generalApp failed appName=%s, child_pid=%d",
                   BootStrace(SK_TAG).c_str(), entry.appName.c_str(), app->pid_);
            continue;
        }
        app->state_ = STARTING;
        SK_LOG(LOG_INFO, "%s Start priority generalApp success appName=%s, child_pid=%d", BootStrace(SK_TAG).c_str(),
               entry.appName.c_str(), app->pid_);
        generalAppMap_[entry.appName] = app;
    }
}

} // namespace Stavik
