#include "resource/delay_core_affinity.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"
#include "resource/cgroup_mgr.h"
#include "resource/core_affinity_mgr.h"

namespace Stavik {

DelayCoreAffinityCfg delayCfg_{};
std::mutex delayCfgMutex_;
std::condition_variable delayCfgCond_;
uint64_t delayCfgRequests_ = 0;
std::mutex delayStopMutex_;
std::condition_variable delayStopCond_;

namespace {

const uint32_t STATE_IDLE = 0;
const uint32_t STATE_CHECKING = 1;
const uint32_t STATE_DONE = 2;
const uint32_t INTERVAL_MIN_MS = 100;
const uint32_t INTERVAL_MAX_MS = 60000;
const uint32_t INTERVAL_DEFAULT_MS = 1000;
const int32_t CHECK_NUM_MIN = -1;
const int32_t CHECK_NUM_MAX = 100;
const int8_t CHECK_NUM_DEFAULT = 3;
const int32_t COUNT_CEILING = 127;
const uint32_t SLICE_MS = 10;
const auto STOP_WAIT = std::chrono::milliseconds(50);

bool BindOwnCores(App::AppInfo& app)
{
    return app.BindCoreForDelayApp(app.coreAffinity_);
}

bool CheckMissing(App::AppInfo& app)
{
    return app.CheckMissingTids();
}

bool ClearApplied(App::AppInfo& app)
{
    return app.ClearAppliedTids();
}

// Sleeps interval in slices, leaving early when a stop is asked for.
void SleepSlices(uint32_t intervalMs)
{
    std::atomic<uint8_t>& interrupt = BootContext::Instance().interruptCheck_;
    for (uint32_t slice = 0; slice < intervalMs / SLICE_MS; ++slice) {
        if (interrupt != 0) {
            Syslog(LOG_INFO, "CheckCoreAffinityThread interrupt");
            return;
        }
        SleepNs(SLICE_MS * NS_PER_MS);
    }
}

void StoreCheckedCfg(const DelayCoreAffinityCfg& cfg)
{
    delayCfg_ = cfg;
    if (cfg.checkInterval < INTERVAL_MIN_MS || cfg.checkInterval > INTERVAL_MAX_MS) {
        Syslog(LOG_ERR, "SetDelayCoreAffinity checkInterval=%u not valid,use default value 1000", cfg.checkInterval);
        delayCfg_.checkInterval = INTERVAL_DEFAULT_MS;
    }
    if (cfg.checkNum < CHECK_NUM_MIN || cfg.checkNum > CHECK_NUM_MAX) {
        Syslog(LOG_ERR, "SetDelayCoreAffinity config checkNum=%d not valid,use default value 3", cfg.checkNum);
        delayCfg_.checkNum = CHECK_NUM_DEFAULT;
    }
}

} // namespace

bool StavikDaemon::ScanDelayCoreAffinityApps(const std::function<bool(App::AppInfo&)>& fn, bool interruptible)
{
    if (!fn) {
        Syslog(LOG_ERR, "ScanDelayCoreAffinityApps func is nullptr");
        return false;
    }
    const std::atomic<uint8_t>& interrupt = BootContext::Instance().interruptCheck_;
    bool result = true;
    auto visit = [&](App::AppInfo& app) {
        if (interruptible && interrupt != 0) {
            return false;
        }
        if (app.isDelayCoreAffinity_ && !fn(app)) {
            result = false;
        }
        return true;
    };
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        for (auto& entry : generalAppMap_) {
            if (!visit(*entry.second)) {
                break;
            }
        }
    }
    std::lock_guard<std::mutex> lock(baseAppMutex_);
    for (App::BaseAppInfo& app : executedBaseApp_) {
        if (!visit(app)) {
            break;
        }
    }
    return result;
}

uint32_t StavikDaemon::SetDelayCoreAffinity(DelayCoreAffinityCfg cfg)
{
    BootContext& context = BootContext::Instance();
    uint32_t ret = 0;
    if (cfg.state == 0) {
        if (context.coreAffinityState_ != STATE_IDLE) {
            Syslog(LOG_INFO, "SetDelayCoreAffinity return directly as has recieved core affinity req before, will "
                             "not update config or bind core");
        } else {
            context.coreAffinityState_ = STATE_CHECKING;
            std::string beginTime = BootStrace(SK_TAG);
            bool bound = ScanDelayCoreAffinityApps(BindOwnCores, false);
            std::string endTime = BootStrace(SK_TAG);
            Syslog(LOG_INFO, "SetDelayCoreAffinity beginTime=%s, endTime=%s", beginTime.c_str(), endTime.c_str());
            {
                std::lock_guard<std::mutex> lock(delayCfgMutex_);
                StoreCheckedCfg(cfg);
                ++delayCfgRequests_;
                delayCfgCond_.notify_all();
            }
            ret = bound ? 0 : DELAY_CORE_AFFINITY_FAILED;
        }
    } else if (cfg.state == 1) {
        // Without the check thread nothing would ever end the check's state.
        if (context.coreAffinityState_ == STATE_CHECKING && coreAffinityThread_.joinable()) {
            Syslog(LOG_INFO, "%s, SetDelayCoreAffinity : start interrupting check task", BootStrace(SK_TAG).c_str());
            std::unique_lock<std::mutex> lock(delayStopMutex_);
            context.interruptCheck_ = 1;
            while (context.coreAffinityState_ == STATE_CHECKING) {
                delayStopCond_.wait_for(lock, STOP_WAIT);
            }
            context.interruptCheck_ = 0;
            lock.unlock();
            Syslog(LOG_INFO, "%s, SetDelayCoreAffinity : finish interrupting check task", BootStrace(SK_TAG).c_str());
        }
        context.coreAffinityState_ = STATE_IDLE;
    } else {
        ret = DELAY_CORE_AFFINITY_FAILED;
    }
    Syslog(LOG_INFO, "SetDelayCoreAffinity state=%u, cfg checkInterval=%u, checkNum=%d, isWakeUpEnable=%d, ret=%d",
           cfg.state, cfg.checkInterval, cfg.checkNum, cfg.isWakeUpEnable, static_cast<int32_t>(ret));
    return ret;
}

void StavikDaemon::StartCoreAffinityCheck()
{
    if (!coreAffinityThread_.joinable()) {
        coreAffinityThread_ = std::thread(&StavikDaemon::CheckCoreAffinityThread, this);
    }
}

void StavikDaemon::WakeCoreAffinityCheck()
{
    std::lock_guard<std::mutex> lock(delayCfgMutex_);
    delayCfgCond_.notify_all();
}

void StavikDaemon::CheckCoreAffinityThread()
{
    BootContext& context = BootContext::Instance();
    uint64_t requestsSeen = 0;
    while (isRunning_) {
        DelayCoreAffinityCfg cfg{};
        {
            std::unique_lock<std::mutex> lock(delayCfgMutex_);
            delayCfgCond_.wait(lock, [&] { return !isRunning_ || delayCfgRequests_ != requestsSeen; });
            requestsSeen = delayCfgRequests_;
            if (!isRunning_ || context.coreAffinityState_ != STATE_CHECKING) {
                continue;
            }
            cfg = delayCfg_;
        }
        Syslog(LOG_INFO, "CheckCoreAffinityThread wakeup,checkInterval=%u,checkNum=%d,isWakeUpEnable=%d",
               cfg.checkInterval, cfg.checkNum, cfg.isWakeUpEnable);
        ScanDelayCoreAffinityApps(ClearApplied, false);
        int32_t count = 0;
        bool coreAffinityOk = false;
        while (isRunning_ && count != cfg.checkNum && !coreAffinityOk) {
            if (context.coreAffinityState_ != STATE_CHECKING) {
                coreAffinityOk = false;
                break;
            }
            if (context.interruptCheck_ != 0) {
                Syslog(LOG_INFO, "CheckCoreAffinityThread interrupt");
                coreAffinityOk = false;
                break;
            }
            if (context.suspendCheck_ != 0) {
                Syslog(LOG_INFO, "CheckCoreAffinityThread suspend");
                coreAffinityOk = false;
                break;
            }
            coreAffinityOk = ScanDelayCoreAffinityApps(CheckMissing, true);
            count = std::min(count + 1, COUNT_CEILING);
            SleepSlices(cfg.checkInterval);
        }
        context.coreAffinityState_ = STATE_DONE;
        {
            std::lock_guard<std::mutex> lock(delayStopMutex_);
            context.interruptCheck_ = 0;
            delayStopCond_.notify_all();
        }
        Syslog(LOG_INFO, "CheckCoreAffinityThread finish check %d times,check interval %u ms,coreAffinityOk=%d, "
                         "isWakeUpEnable=%d",
               count, cfg.checkInterval, coreAffinityOk ? 1 : 0, cfg.isWakeUpEnable);
    }
    Syslog(LOG_INFO, "STAVIK: CheckCoreAffinityThread exit now.");
}

bool StavikDaemon::WakeUpRecover()
{
    BootContext& context = BootContext::Instance();
    uint8_t isWakeUpEnable = 0;
    {
        std::lock_guard<std::mutex> lock(delayCfgMutex_);
        isWakeUpEnable = delayCfg_.isWakeUpEnable;
        context.coreAffinityState_ = isWakeUpEnable != 0 ? STATE_IDLE : STATE_DONE;
    }
    Syslog(LOG_INFO, "WakeUpRecover wakeUpDelayCoreAffinity=%d", isWakeUpEnable);
    context.suspendCheck_ = 0;
    CgroupMgr::Instance().EnableDefaultCpuSet();
    CoreAffinityMgr& mgr = CoreAffinityMgr::Instance();
    std::string errInfo;
    std::vector<uint32_t> ctrl;
    if (mgr.SetCoreAffinityToOs(static_cast<uint32_t>(getpid()), ctrl, errInfo) != 0) {
        Syslog(LOG_WARNING, "WakeUpRecover sk SetCoreAffinityToOs failed, err=%s", errInfo.c_str());
    }
    std::vector<AppCoreInfo> apps;
    auto add = [&](const App::AppInfo& app) {
        if (!(isWakeUpEnable != 0 && app.isDelayCoreAffinity_)) {
            apps.push_back({static_cast<uint32_t>(app.pid_), app.coreAffinity_});
        }
    };
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        for (const App::BaseAppInfo& app : executedBaseApp_) {
            add(app);
        }
    }
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        for (const auto& entry : generalAppMap_) {
            add(*entry.second);
        }
    }
    {
        std::lock_guard<std::mutex> lock(skUploadAppMutex_);
        for (const auto& entry : skUploadAppMap_) {
            apps.push_back({static_cast<uint32_t>(entry.first), {}});
        }
    }
    if (isWakeUpEnable != 0) {
        const std::vector<uint32_t> ctrlCpus = mgr.CtrlCpus();
        bool reset = ScanDelayCoreAffinityApps([&](App::AppInfo& app) { return app.BindCoreForDelayApp(ctrlCpus); },
                                               false);
        Syslog(LOG_INFO, "Reset Core Affinity to CpuSet for delay apps, ret=%d", reset ? 1 : 0);
    }
    bool ok = mgr.RecoverCoreAffinity(apps);
    if (ok) {
        Syslog(LOG_INFO, "WakeUpRecover success");
    } else {
        Syslog(LOG_ERR, "WakeUpRecover failed");
    }
    return ok;
}

} // namespace Stavik
