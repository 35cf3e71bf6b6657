#ifndef STAVIK_APP_APP_INFO_H
#define STAVIK_APP_APP_INFO_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/process_state.h"
#include "application_manifest.h"

namespace Stavik {
struct CoreBinding;

namespace App {
class ChildText;

// Values of schedPolicy_: the scheduling class to apply in the child.
constexpr uint32_t SK_SCHED_OTHER = 0;
constexpr uint32_t SK_SCHED_BATCH = 1;
constexpr uint32_t SK_SCHED_IDLE = 2;
constexpr uint32_t SK_SCHED_FIFO = 3;
constexpr uint32_t SK_SCHED_RR = 4;
constexpr uint32_t SK_SCHED_UNCHANGED = 5;

// A first element of this value in coreAffinity_ names no CPU: it asks for
// real-time scheduling instead.
constexpr uint32_t CORE_AFFINITY_RT_SENTINEL = 255;

// Values of a request's dynamic parameters, by slot: 0 exec path, 1 vfid, 2 env.
using DynamicParaMap = std::map<int32_t, std::vector<std::string>>;

// One restart of a base application, kept for the restart window.
struct RestartRecord {
    uint64_t time;   // steady clock, nanoseconds
    uint32_t reason; // TerminatedReason
};

// The record of one managed process: how to start it and how it is doing.
// A plain record: the daemon, the state machine and the handlers read and
// write the members directly, under the mutex of the list that holds it.
class AppInfo {
public:
    AppInfo() = default;
    AppInfo(const ApplicationManifest& manifest, const std::string& appName, const std::string& ownerName);
    AppInfo(const AppInfo&) = default;
    AppInfo(AppInfo&&) = default;
    AppInfo& operator=(const AppInfo&) = default;
    AppInfo& operator=(AppInfo&&) = default;
    virtual ~AppInfo() = default;

    // Scheduling from the manifest's real-time words; resets the three
    // scheduling members first.
    void ParseRtPrio(const ApplicationManifest& manifest);
    // Turns the sentinel 255 in front of coreAffinity_ into SCHED_FIFO 99.
    void ApplySchedFromCore();
    bool IsRunning() const;
    // "on-failure" or "on-forever": the record stays after its process ended.
    bool IsRestartPolicyResident() const;

    // Stores the raw wait status of pid_; called by the wait thread.
    void SetExitStatus(int32_t status);
    // 0 running, 1 the query failed, 2 stopped.
    int32_t QueryStopped();
    // Child, after its environment: binds it to the prepared cores, unless
    // this is a quick start or the binding waits for the delayed flow.
    void ApplyCoreAffinity(const CoreBinding& binding, ChildText& errInfo) const;

    // Delayed binding, on the daemon's side once the cores are ready: the
    // process and every thread it has now to cores.
    bool BindCoreForDelayApp(const std::vector<uint32_t>& cores);
    // Binds threads not bound yet; true when there were none, that is when
    // the check of this application is satisfied.
    bool CheckMissingTids();
    bool ClearAppliedTids();

    // What every check pass and every reap reads of each record comes first,
    // so that a walk over the records touches one cache line of each.
    int32_t pid_ = 0;
    ProcessState state_ = INITSTATE;
    ReportAppStateType reportState_ = INVALID_INTERMEDIATE_STATE;
    int32_t exitStatus_ = 0;
    bool hasExitStatus_ = false;
    bool isInputOutputError_ = false;
    bool isReporting_ = false;
    uint64_t startTime_ = 0; // steady clock, nanoseconds
    std::string appName_;
    uint32_t uid_ = 0;
    uint32_t gid_ = 0;
    std::vector<uint32_t> coreAffinity_;
    std::string resGroupName_;
    std::string execPath_;
    std::vector<std::string> arguments_;
    std::map<std::string, std::string> env_;
    uint32_t termTimeOut_ = 0; // milliseconds
    std::string homeEnv_;
    std::string securityCon_;
    std::string cpuset_;
    std::string restart_;
    std::string ownerName_;
    uint32_t nodeType_ = 0;
    int32_t startupPriority_ = -1;
    bool isStartedAsPriority_ = false;
    bool isDelayCoreAffinity_ = false;
    std::set<uint32_t> boundTids_;
    int32_t vfId_ = -1;
    bool isDynamicPara_ = false;
    std::string blkioGroupName_;
    std::map<std::string, std::string> cgroupPath_;
    uint32_t numaType_ = 0;
    bool isDynamicExecPath_ = false;
    std::string execPathPattern_;
    bool isDynamicArgs_ = false;
    std::vector<std::string> argPatterns_;
    bool isDynamicEnv_ = false;
    std::map<std::string, std::string> envPatterns_;
    bool isDynamicVfId_ = false;
    std::string vfIdPattern_;
    uint32_t schedPolicy_ = SK_SCHED_UNCHANGED;
    bool needRtLimit_ = false;
    int32_t rtPrio_ = -1;

protected:
    // The last steps of building a record: the manifest's real-time words,
    // then the core sentinel, and no delayed binding without cores to bind.
    void ApplySchedSettings(const ApplicationManifest& manifest);
};

// An application started on request of an owner service. The default
// constructor gives the empty placeholder record used in replies about
// unknown applications.
class GeneralAppInfo : public AppInfo {
public:
    GeneralAppInfo() = default;
    GeneralAppInfo(const std::string& appName, const ApplicationManifest& manifest, const std::string& ownerName);

    // Takes the start description of a reloaded manifest; owner, policy,
    // dynamic members and live state stay.
    void UpdateAppInfo(const ApplicationManifest& manifest);

    // Applies the values a request brought for the dynamic parameters.
    bool UpdateDynamicPara(const std::vector<std::string>& arguments, const DynamicParaMap& parameters);
    void UpdateArgs(const std::vector<std::string>& arguments);
    bool UpdateExecvPath(const std::vector<std::string>& values);
    bool UpdateVfId(const std::vector<std::string>& values);
    bool UpdateEnv(const std::vector<std::string>& values);

    // Sends SIGTERM; true unless pid_ is invalid.
    bool TermProcess();
    void SetTermBeginTime();
    uint64_t GetTermBeginTime() const;

    bool StartProcess();
    ProcessState CheckState();

    uint64_t termBeginTime_ = 0; // steady clock, nanoseconds
    int32_t nice_ = 0;
    bool isForceTerm_ = false;
    bool savedForceTerm_ = false;
    bool isKillSent_ = false;
    std::vector<SharepoolGroupsInfo> sharepoolGroups_;
    bool heartBeatSwitch_ = false;
    uint32_t heartBeatInterval_ = 0;
    uint32_t heartBeatCount_ = 0;
    int32_t isRestartStarted_ = 0;
    int32_t processType_ = 0;

private:
    void ComputeDynamicMembers(const ApplicationManifest& manifest);
};

// A service of the base manifest, started at boot and kept for the daemon's life.
class BaseAppInfo : public AppInfo {
public:
    explicit BaseAppInfo(const ApplicationManifest& manifest);

    // Whether a base application that died by itself may be started again.
    bool NeedRestart(uint32_t reason);
    // The same decision at a given steady time, in nanoseconds.
    bool NeedRestart(uint32_t reason, uint64_t nowNs);

    bool StartProcess();
    ProcessState CheckState();

    std::set<std::string> dependList_;
    bool isForceTerm_ = false;
    std::string startupEntryPath_;
    std::deque<RestartRecord> restartHistory_; // newest at the front
    bool heartBeatSwitch_ = false;
    uint32_t heartBeatInterval_ = 0;
    uint32_t heartBeatCount_ = 0;
    bool isServerReady_ = false;
};

} // namespace App
} // namespace Stavik

#endif
