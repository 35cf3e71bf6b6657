#include <algorithm>

#include "app/manifest_parser.h"
#include "boot/boot_mark.h"
#include "channel/name_tables.h"
#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"
#include "supervision/sensor_node_event_reporter.h"

namespace Stavik {
namespace {

const uint64_t BASE_START_PAUSE_NS = 30 * NS_PER_MS;

bool IsReportedState(ProcessState state)
{
    return state == RUNNING || state == TERMINATING || state == TERMINATED;
}

} // namespace

void StavikDaemon::InitBaseApplication(const std::string& yamlPath)
{
    Syslog(LOG_INFO, "%s InitBaseApplication begin, yaml path=%s", BootStrace(SK_TAG).c_str(), yamlPath.c_str());
    if (!ParseYamlFile(yamlPath, baseManifests_)) {
        Syslog(LOG_ERR, "STAVIK : ParseYamlFile failed, Stavik return");
        return;
    }
    {
        // Room for all at once: a growing vector would copy every record
        // started so far, twice the memory for a moment, under the mutex.
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        executedBaseApp_.reserve(executedBaseApp_.size() + enabledBaseApps_.size());
    }
    bool allStarted = true;
    DependGraph graph;
    ManifestParser().GetStartGraph(enabledBaseApps_, graph);
    while (!graph.IsEmpty()) {
        // An ordered set: the names of one level start in byte order.
        const std::set<std::string> ready = graph.GetNoDependVertices();
        if (!StartBaseLevel(ready, allStarted)) {
            return;
        }
        for (const std::string& name : ready) {
            graph.Pop(name);
        }
    }
    baseManifests_.clear();
    Syslog(LOG_INFO, "%s InitBaseApplication end", BootStrace(SK_TAG).c_str());
    SleepNs(BASE_START_PAUSE_NS);
    if (EnableWatchDog(allStarted)) {
        BootContext::Instance().BootMark(BOOT_MARK_BOOT_DONE);
    }
}

// False when a name has no manifest: the whole start ends there, with the
// manifests kept and no watchdog step. A failed application doesn't stop it.
bool StavikDaemon::StartBaseLevel(const std::set<std::string>& names, bool& allStarted)
{
    for (const std::string& name : names) {
        auto manifest = std::find_if(baseManifests_.begin(), baseManifests_.end(),
                                     [&name](const ApplicationManifest& m) { return m.GetAppName() == name; });
        if (manifest == baseManifests_.end()) {
            Syslog(LOG_ERR, "STAVIK : can't find %s", name.c_str());
            return false;
        }
        if (!InitOneBaseApplication(App::BaseAppInfo(*manifest))) {
            Syslog(LOG_ERR, "stavik-daemon cur time:%s, start baseApp=%s failed", BootStrace(SK_TAG).c_str(),
                   name.c_str());
            allStarted = false;
        }
    }
    return true;
}

bool StavikDaemon::ParseYamlFile(const std::string& yamlPath, std::vector<ApplicationManifest>& manifests)
{
    if (ManifestParser().ParseYaml(PARAM_TYPE_APP_MANIFEST, yamlPath, manifests, {}) != 0) {
        return false;
    }
    BootContext& context = BootContext::Instance();
    std::set<std::string> names;
    for (auto manifest = manifests.begin(); manifest != manifests.end();) {
        const std::string name = manifest->GetAppName();
        if (name.empty()) {
            Syslog(LOG_ERR, "STAVIK : ParseYamlFile : appName is NULL");
            return false;
        }
        // The first entry of a name wins, for the graph and the start alike.
        if (!names.insert(name).second) {
            Syslog(LOG_ERR, "STAVIK : ParseYamlFile : %s names appName=%s again, the later entry is ignored",
                   yamlPath.c_str(), name.c_str());
            manifest = manifests.erase(manifest);
            continue;
        }
        if (context.IsEnableByCmdline(manifest->GetCfgPath())) {
            enabledBaseApps_.push_back(name);
        }
        ++manifest;
    }
    context.CheckEnableFeatures();
    return true;
}

bool StavikDaemon::InitOneBaseApplication(App::BaseAppInfo app)
{
    if (app.IsRunning()) {
        Syslog(LOG_WARNING, "STAVIK=%s is already running", app.appName_.c_str());
        return true;
    }
    if (!CheckDependency(app.dependList_, app.appName_)) {
        return false;
    }
    {
        // One hold covers the fork and the filing, so that the wait thread
        // finds the record even for a child that dies at once.
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        if (!app.StartProcess() || app.state_ != STARTING) {
            Syslog(LOG_ERR, "Start %s failed, state:%s", app.appName_.c_str(), GetProcessStateStr(app.state_).c_str());
            ReportSensorEvent(app.appName_, app.nodeType_, SENSOR_VALUE_PROCESS, 0, SENSOR_EVENT_FAULT);
            return false;
        }
        executedBaseApp_.push_back(app);
        if (FindBaseApp(app.appName_) == nullptr) {
            Syslog(LOG_ERR, "STAVIK : InitOneBaseApplication, not find ownerName=%s", app.appName_.c_str());
            return false;
        }
    }
    // The naming service learns of each base application as soon as it has a pid.
    ReportBaseAppState(app, RUNNING_NORMAL_START, REASON_NONE);
    if (!app.isReporting_) {
        return true;
    }
    if (!RegisterService(app.appName_, app.gid_)) {
        Syslog(LOG_ERR, "STAVIK : procname=%s RegisterService failed", app.appName_.c_str());
        return false;
    }
    Syslog(LOG_INFO, "Register heart beat checker for %s.", app.appName_.c_str());
    RegisterHeartBeatCheck(app.appName_, app.gid_);
    InitBaseApp(app.appName_);
    return true;
}

bool StavikDaemon::CheckDependency(const std::set<std::string>& deps, const std::string& appName)
{
    if (deps.empty()) {
        return true;
    }
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    for (const std::string& dep : deps) {
        Syslog(LOG_INFO, "STAVIK : %s depends on %s [%s => %s]", appName.c_str(), dep.c_str(), appName.c_str(),
               dep.c_str());
        if (executedBaseApp_.empty()) {
            Syslog(LOG_ERR, "STAVIK : %s 's dependcy %s hasn't been started", appName.c_str(), dep.c_str());
            return false;
        }
        const App::BaseAppInfo* depApp = FindBaseApp(dep);
        if (depApp == nullptr) {
            Syslog(LOG_ERR, "STAVIK : %s 's dependcy %s not find,", appName.c_str(), dep.c_str());
            return false;
        }
        if (!depApp->IsRunning()) {
            Syslog(LOG_ERR, "STAVIK : %s's dependcy %s hasn't been started", appName.c_str(), dep.c_str());
            return false;
        }
        Syslog(LOG_INFO, "STAVIK : %s's dependcy %s has been started", appName.c_str(), dep.c_str());
    }
    return true;
}

App::BaseAppInfo* StavikDaemon::FindBaseApp(const std::string& name)
{
    for (App::BaseAppInfo& app : executedBaseApp_) {
        if (app.appName_ == name) {
            return &app;
        }
    }
    return nullptr;
}

// The element is looked up by name on every turn, never kept by pointer: the
// check thread may erase an element meanwhile and move the ones behind it.
// One that is gone has ended for good, so it counts as TERMINATED.
ProcessState StavikDaemon::LookUpReportedState(const std::string& appName, uint64_t& reportsSeen)
{
    std::lock_guard<std::mutex> baseLock(baseAppMutex_);
    std::lock_guard<std::mutex> stateLock(stateMutex_);
    reportsSeen = stateReports_;
    const App::BaseAppInfo* app = FindBaseApp(appName);
    return app == nullptr ? TERMINATED : app->state_;
}

// Only a state report (or the stop) wakes this wait; an application that dies
// before it has reported keeps the boot here until a report comes.
void StavikDaemon::InitBaseApp(const std::string& appName)
{
    uint64_t reportsSeen = 0;
    ProcessState state = LookUpReportedState(appName, reportsSeen);
    while (!IsReportedState(state)) {
        Syslog(LOG_INFO, "STAVIK: waiting for baseApp=%s reported state, RUNNING OR TERMINATING.", appName.c_str());
        {
            std::unique_lock<std::mutex> lock(stateMutex_);
            // A report between the look-up and this point has already notified.
            if (stateReports_ == reportsSeen) {
                stateCond_.wait(lock);
            }
        }
        state = LookUpReportedState(appName, reportsSeen);
    }
    if (state == RUNNING) {
        MarkServiceRunning(appName);
        Syslog(LOG_INFO, "%s InitBaseApp:%s success, report RUNNING!", BootStrace(SK_TAG).c_str(), appName.c_str());
    } else if (state == TERMINATING) {
        Syslog(LOG_WARNING, "%s InitBaseApp:%s report TERMINATING!", BootStrace(SK_TAG).c_str(), appName.c_str());
    } else {
        Syslog(LOG_WARNING, "%s InitBaseApp:%s has been %u!", BootStrace(SK_TAG).c_str(), appName.c_str(),
               static_cast<unsigned>(TERMINATED));
    }
}

void StavikDaemon::MarkServiceRunning(const std::string& appName)
{
    if (appName == ZUL_MGR_NAME) {
        BootContext::Instance().BootMark(BOOT_MARK_ZUL_RUNNING);
    } else if (appName == BRELLAN_NAME) {
        BootContext::Instance().BootMark(BOOT_MARK_BRELLAN_RUNNING);
    }
}

bool StavikDaemon::EnableWatchDog(bool flag)
{
    Syslog(LOG_DEBUG, "STAVIK : EnableWatchDog flag=%d", flag ? 1 : 0);
    return flag;
}

} // namespace Stavik
