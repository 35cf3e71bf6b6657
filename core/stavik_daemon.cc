#include "core/stavik_daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "app/home_env.h"
#include "boot/boot_mark.h"
#include "boot/locked_memory.h"
#include "channel/upload.h"
#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/continue_signal.h"
#include "core/sk_log.h"
#include "core/sleep.h"
#include "core/sys_root.h"
#include "resource/core_affinity_mgr.h"
#include "resource/sharepool.h"
#include "supervision/heart_beat_notify.h"
#include "supervision/integrity.h"
#include "supervision/sys_check_server.h"

namespace Stavik {

std::vector<App::BaseAppInfo> executedBaseApp_;
std::mutex baseAppMutex_;
GeneralAppMap generalAppMap_;
std::mutex generalAppMutex_;
std::vector<ApplicationManifest> baseManifests_;
std::map<int32_t, SkUploadAppInfo> skUploadAppMap_;
std::mutex skUploadAppMutex_;

namespace {

const std::string NOTIFY_DONE_FILE = "/sys/fs/cgroup/notify_sk_done";
const std::string PASSWD_FILE = "/etc/passwd";
const std::string STAVIK_CFG_FILE = "/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml";
const std::string COMMON_ENV_FILE = "/etc/ostrel_common_env.conf";
// The line of the default user and group, whose home children get as HOME.
const std::string DEFAULT_USER_KEY = "1000:1000";
const uint32_t CONTINUE_WAIT_TURNS = 2000;
const uint32_t CONTINUE_FILE_EVERY = 20;
const uint64_t CONTINUE_SLEEP_NS = 5 * NS_PER_MS;

void JoinIfStarted(std::thread& thread)
{
    if (thread.joinable()) {
        thread.join();
    }
}

} // namespace

StavikDaemon::StavikDaemon(std::string baseServiceCfgPath) : baseServiceCfgPath_(std::move(baseServiceCfgPath))
{
    BindHeartBeatNotify(this, callbackGate_);
}

bool StavikDaemon::Init()
{
    LoadStavikCfg(STAVIK_CFG_FILE, stavikCfg_);
    BootContext::Instance().Init();
    SharepoolCfg::Instance().LoadSharepool();
    IntegrityProtect::Instance().LoadHashConfig();
    BootContext::Instance().UpdateStartupYaml(baseServiceCfgPath_);
    SetLockedMemoryLimit(COMMON_ENV_FILE);
    App::InquireHomeEnvVariable(PASSWD_FILE, DEFAULT_USER_KEY);
    if (!BootContext::Instance().isQuickStart_) {
        CoreAffinityMgr::Instance().LoadCpuSets();
    }
    SK_LOG(LOG_INFO, "%s, init success", BootStrace(SK_TAG).c_str());
    return true;
}

void StavikDaemon::Run()
{
    checkThread_ = std::thread(&StavikDaemon::CheckThread, this);
    waitThread_ = std::thread(&StavikDaemon::WaitThread, this);
    InitPriorityApps(baseServiceCfgPath_);
    WaitContinueSignal();
    ContinueStavikInit();
    receiveChildMsgThread_ = std::thread(&StavikDaemon::ReceiveChildProcessMsgThread, this);
    InitBaseApplication(baseServiceCfgPath_);
    sysCheckThread_ = std::thread(SysCheck, this);
    Join();
}

void StavikDaemon::ContinueSignalHandler(int)
{
    NoteContinueSignal();
}

void StavikDaemon::WaitContinueSignal()
{
    BootContext& context = BootContext::Instance();
    if (!context.isQuickStart_) {
        SK_LOG(LOG_INFO, "is not quickstart, so not wait for continue signal");
        return;
    }
    const std::string markerFile = SysPath(NOTIFY_DONE_FILE);
    bool succeeded = false;
    uint32_t turn = 0;
    while (true) {
        if (continueSignalCaught_ != 0) {
            succeeded = true;
            break;
        }
        ++turn;
        if (turn == CONTINUE_WAIT_TURNS + 1) {
            break;
        }
        SleepNs(CONTINUE_SLEEP_NS);
        if (turn % CONTINUE_FILE_EVERY == 0 && access(markerFile.c_str(), F_OK) == 0) {
            succeeded = true;
            break;
        }
    }
    if (succeeded) {
        SK_LOG(LOG_INFO, "%s wait success for continue startup, catch continue signal time=%s",
               BootStrace(SK_TAG).c_str(), ContinueSignalTime().c_str());
    } else {
        SK_LOG(LOG_INFO, "%s wait for continue startup timeout!!", BootStrace(SK_TAG).c_str());
    }
    context.isQuickStart_ = false;
}

void StavikDaemon::ContinueStavikInit()
{
    BootContext::Instance().BootMark(BOOT_MARK_CONTINUE);
    BootContext::Instance().GetBoardInfo();
    BootContext::Instance().OpenKillMgr();
    SetUpResourceControl();
    if (!StartUploadServer()) {
        return;
    }
    RegisterSensorNodes();
    Syslog(LOG_INFO, "%s, ContinueStavikInit success", BootStrace(SK_TAG).c_str());
}

void StavikDaemon::Join()
{
    const std::string markerFile = SysPath(NOTIFY_DONE_FILE);
    if (access(markerFile.c_str(), F_OK) == 0) {
        remove(markerFile.c_str());
    }
    JoinIfStarted(coreAffinityThread_);
    JoinIfStarted(waitThread_);
    JoinIfStarted(checkThread_);
    JoinIfStarted(receiveChildMsgThread_);
    JoinIfStarted(sysCheckThread_);
}

// A child that ends at once makes a blocking wait return, so that the wait
// thread sees the stop even while other children live. The child waits until
// its pid is stored, so that the wait thread always knows it as the wake child.
void StavikDaemon::StartWaitWakeChild()
{
    if (!waitThread_.joinable()) {
        return;
    }
    int hold[2] = {-1, -1};
    if (pipe2(hold, O_CLOEXEC) != 0) {
        Syslog(LOG_ERR, "STAVIK: wake child pipe failed, errno=%d", errno);
        return;
    }
    pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        close(hold[1]);
        while (read(hold[0], &byte, 1) == -1 && errno == EINTR) {
        }
        _exit(0);
    }
    if (child > 0) {
        wakeChildPid_.store(child);
    }
    close(hold[1]);
    close(hold[0]);
}

// No owner-pipe or heart-beat callback may reach the members once they go:
// the pipes are closed and the callbacks still inside are waited for. The log stays open
// for the lines of StavikRun and main; main closes it.
StavikDaemon::~StavikDaemon()
{
    stateCond_.notify_all();
    ReleaseFaultSupervision();
    isRunning_ = false;
    WakeCoreAffinityCheck();
    StartWaitWakeChild();
    BootContext::Instance().WakeChildMsgReader();
    Join();
    master_.CloseAllPipes();
    SkUpload::SkUploadServer::Instance().Close();
    callbackGate_->Close();
    BootContext::Instance().ClosePipes();
    BootContext::Instance().CloseKillMgr();
}

// The exception is told while the daemon still stands, with the log open.
uint32_t StavikRun(const std::string& baseServiceCfgPath)
{
    StavikDaemon daemon(baseServiceCfgPath);
    try {
        if (!daemon.Init()) {
            return 1;
        }
        daemon.Run();
    } catch (const std::exception& error) {
        Syslog(LOG_ERR, "STAVIK: Caught exception=%s", error.what());
        return 1;
    } catch (...) {
        Syslog(LOG_ERR, "STAVIK: Caught unknown exception.");
        return 1;
    }
    return 0;
}

} // namespace Stavik
