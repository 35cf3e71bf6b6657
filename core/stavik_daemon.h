#ifndef STAVIK_CORE_STAVIK_DAEMON_H
#define STAVIK_CORE_STAVIK_DAEMON_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unordered_map>
#include <vector>

#include "boot/stavik_cfg.h"
#include "channel/master.h"
#include "channel/message.h"
#include "channel/serialization_upload.h"
#include "resource/delay_core_affinity.h"
#include "core/callback_gate.h"
#include "core/app_tables.h"
#include "core/priority_app_list.h"
#include "tubix.h"

namespace Stavik {

// The central object: owns the threads, the manifest tables and the order of
// the boot. Exactly one lives, on the stack of StavikRun.
//
// The steps of the base start and of the supervision passes are public: the
// IPC handlers call the state operations, and the unit tests drive the steps
// without running the whole daemon.
class StavikDaemon {
public:
    explicit StavikDaemon(std::string baseServiceCfgPath);
    ~StavikDaemon();
    StavikDaemon(const StavikDaemon&) = delete;
    StavikDaemon& operator=(const StavikDaemon&) = delete;

    bool Init();
    void Run();
    void Join();
    void WaitContinueSignal();
    void ContinueStavikInit();
    // Continue step: CPU lists, host cgroup settings, then the daemon's own
    // threads and the priority applications into their cgroups and cores.
    void SetUpResourceControl();
    void MoveStavikTidsToCgroup();
    void MovePriorityAppsToCgroup();
    static void ContinueSignalHandler(int signal);

    // Thread bodies.
    void CheckThread();
    void WaitThread();
    void ReceiveChildProcessMsgThread();

    // Base start, on the main thread.
    void InitBaseApplication(const std::string& yamlPath);
    bool ParseYamlFile(const std::string& yamlPath, std::vector<ApplicationManifest>& manifests);
    bool InitOneBaseApplication(App::BaseAppInfo app);
    // True when every dependency is a running base application.
    bool CheckDependency(const std::set<std::string>& deps, const std::string& appName);
    // The caller holds baseAppMutex_; the pointer is valid only while it does.
    App::BaseAppInfo* FindBaseApp(const std::string& name);
    // Waits until the named base application has reported RUNNING or
    // TERMINATING, or has ended.
    void InitBaseApp(const std::string& appName);
    bool EnableWatchDog(bool flag);
    // Boot marks of the naming service and the data-plane launcher.
    void MarkServiceRunning(const std::string& appName);

    // State reports of running base services.
    void UpdateBaseAppState(const std::string& name, uint32_t state);
    void UpdateOwnerReady(const std::string& name);
    void PUpdateBaseServerReadyInfo(const std::string& name);

    // Wait thread: hands the status of a reaped pid to the record it belongs
    // to. nowNs bounds startTime_: a record started later can't be meant.
    void DeliverExitStatus(int32_t pid, int32_t status, uint64_t nowNs);
    // Oldest live general record with this pid started before bound; lowers
    // bound to its start time. Takes generalAppMutex_.
    std::string FindGeneralAppByPid(int32_t pid, uint64_t& bound);
    // The same over executedBaseApp_; the size when none. The caller holds baseAppMutex_.
    size_t FindBaseAppIndexByPid(int32_t pid, uint64_t bound) const;

    // Steps of a check pass.
    void CheckBaseApps();
    void CheckGeneralApps();
    // The general half of a pass: advances every record and appends the
    // changes the owners have to hear of.
    void CollectGeneralAppChanges(std::vector<Message::AppStateChange>& changes);
    void RemoveFinishedApps();
    void CheckSkUploadApps();
    // The caller holds baseAppMutex_.
    bool RestartBaseApp(const std::string& name);

    // Pipes to owner services and the registration with the naming service.
    bool RegisterService(const std::string& name, uint32_t gid);
    void UnRegServiceCallBack(const std::string& name);
    void RegisterVfs();

    // Requests of owners, on callback threads of the IPC library.
    void RequestMsgHandler(int32_t fd, const TubixRequest* req, std::string owner);
    void DispatchRequest(Message::RequestType type, const Message::RequestMsg& msg, const std::string& owner,
                         const TubixRequest& req, int32_t fd);
    void StartApp(const std::vector<Message::StartAppInfo>& apps, const std::string& owner);
    void RestartApp(const std::vector<Message::RestartAppInfo>& apps, const std::string& owner);
    void TermApp(const std::vector<Message::TermAppInfo>& apps, const std::string& owner);
    void QueryAppState(const std::vector<std::string>& names, const std::string& owner);
    void AddAppStateChange(const App::AppInfo& app, std::vector<Message::AppStateChange>& changes,
                           ReportAppStateType state, const std::string& owner);
    // The caller holds generalAppMutex_.
    void HandlePriorityApps(App::GeneralAppInfo& app);
    void UpdateAppExecState(const Message::AppExecInfo& info);

    // Fault events of the named services and heart-beat checks of the reporting ones.
    void ReportSensorEvent(const std::string& name, uint32_t nodeType, uint32_t sensorValue, uint32_t zero,
                           uint32_t event);
    void RegisterSensorNodes();
    void RegisterHeartBeatCheck(const std::string& name, uint32_t gid);
    // The steps of a notification of the heart-beat library, on its thread.
    uint32_t HandleHeartBeatNotify(const char* appName, size_t nameLen, int32_t pid, uint32_t status);
    bool IsRunning() const { return isRunning_; }

    // Reports to owners.
    bool ReportAppState(const std::vector<Message::AppStateInfo>& apps, const std::string& owner);
    bool ReportAppDetailStatus(const Message::AppDetailStatusMap& statusMap, const std::string& owner);
    void ReportGeneralAppChanges(const std::vector<Message::AppStateChange>& changes);
    void ReportBaseAppState(const App::AppInfo& app, ReportAppStateType state, uint32_t reason);
    // The caller holds generalAppMutex_.
    bool GetPriorityAppState(App::GeneralAppInfo& app, Message::AppStateInfo& info);
    void ReportAllGeneralAppsToZul();
    void ReportRunningGeneralAppsToZul();
    void ReportAllBaseAppsToZul();

    // Processes announced through the upload server.
    // Continue step: false when the server could not be created.
    bool StartUploadServer();
    bool HandleLoadAppInfo(const SkUpload::LoadAppInfo& info, int32_t fd);
    void RemoveStaleUploadApp(const SkUpload::LoadAppInfo& info);
    bool AddUploadApp(const SkUpload::LoadAppInfo& info, int32_t fd);
    void SetUploadAppGroups(const SkUpload::LoadAppInfo& info);
    bool IsAppNameStarted(const std::string& name);

    // Delayed core binding. Nothing in the start sequence reaches these yet:
    // a dispatch entry is to call SetDelayCoreAffinity and WakeUpRecover and
    // start the check thread.
    uint32_t SetDelayCoreAffinity(DelayCoreAffinityCfg cfg);
    void CheckCoreAffinityThread();
    bool WakeUpRecover();
    bool ScanDelayCoreAffinityApps(const std::function<bool(App::AppInfo&)>& fn, bool interruptible);
    // Starts coreAffinityThread_ unless it runs.
    void StartCoreAffinityCheck();

    // Priority applications and start-up configuration.
    void InitPriorityApps(const std::string& yamlPath);
    uint32_t LoadStartCfgInfo(const std::string& yamlPath, PriorityAppList& list);
    void StartPriorityApps(PriorityAppList& list);
    uint32_t LoadStartCfgInfo(const Message::StartupCfgInfo& info);
    uint32_t ReLoadStartCfgInfo(const Message::StartupCfgInfo& info);
    void StoreManifests(const std::vector<ApplicationManifest>& manifests);
    std::string GetStartupEntryPath(const std::string& procName);
    void HandleLoadStartupCfg(const std::string& owner, const Message::StartupCfgInfo& info,
                              const TubixRequest& request, int32_t fd);
    void HandleReloadStartupCfg(const std::string& owner, const Message::StartupCfgInfo& info,
                                const TubixRequest& request, int32_t fd);
    // The caller holds generalAppMutex_.
    std::shared_ptr<App::GeneralAppInfo> GetGeneralApp(const std::string& name, const std::string& owner);
    void UpdateAllGeneralAppMap(const std::string& name, const std::string& owner);

private:
    void StartWaitWakeChild();
    void RunCheckPasses();
    bool StartBaseLevel(const std::set<std::string>& names, bool& allStarted);
    ProcessState LookUpReportedState(const std::string& appName, uint64_t& reportsSeen);
    void HandleBaseAppAbnormalEnd(App::BaseAppInfo& app);
    bool ChooseChangeOwner(const App::GeneralAppInfo& app, std::string& owner);
    void UpdateKillMgrForApp(const App::GeneralAppInfo& app, Message::AppStateInfo& info);
    bool IsZulServerReady();
    void SetReportedBaseAppState(const std::string& name, ProcessState state);
    void HandleZulInit(const std::string& name);
    void HandleZulRestarting(const std::string& name);
    void ReleaseFaultSupervision();
    void WakeCoreAffinityCheck();

    std::thread sysCheckThread_;
    std::mutex stateMutex_;
    std::condition_variable stateCond_;
    // Count of state reports that changed a base application, under stateMutex_;
    // lets InitBaseApp wait without holding baseAppMutex_ and lose no report.
    uint64_t stateReports_ = 0;
    std::string baseServiceCfgPath_;
    // Shared with every owner-pipe callback; closed by the stop.
    std::shared_ptr<CallbackGate> callbackGate_ = std::make_shared<CallbackGate>();
    Master master_;
    GeneralAppMap allGeneralAppMap_;
    std::thread checkThread_;
    std::thread receiveChildMsgThread_;
    std::thread waitThread_;
    std::vector<std::string> enabledBaseApps_;
    std::unordered_map<std::string, ApplicationManifest> staticManifestMap_;
    std::unordered_map<std::string, ApplicationManifest> dynamicManifestMap_;
    std::mutex manifestMutex_;
    StavikCfg stavikCfg_;
    // Read by every loop without a lock; atomic so that the stop is seen at once.
    std::atomic<bool> isRunning_{true};
    std::thread coreAffinityThread_;
    // A child forked by the stop only to end a blocking wait of the wait
    // thread; it can't end before its pid is stored here.
    std::atomic<pid_t> wakeChildPid_{0};
};

// Builds and runs the daemon; 0 after an orderly end, 1 after an exception.
uint32_t StavikRun(const std::string& baseServiceCfgPath);

} // namespace Stavik

#endif
