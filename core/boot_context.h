#ifndef STAVIK_CORE_BOOT_CONTEXT_H
#define STAVIK_CORE_BOOT_CONTEXT_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Stavik {

struct StavikCfg;

// Optional base services: a feature key of the kernel command line and the
// file name whose presence in an entry's configuration path ties the entry to it.
extern const std::map<std::string, std::string> ENABLE_TABLE;

// Process-wide facts of the boot: the log channel, the daemon's pid, the
// anonymous pipe through which children send their error text, and the
// optional features asked for on the kernel command line.
class BootContext {
public:
    static BootContext& Instance();

    // Pid, selinux state, kernel command line, reboot reason, then the
    // anonymous pipe.
    void Init();
    void UpdateSelinuxEnable();
    // Reads the "stavik" and "yrnmode" keys of the kernel command line.
    void ParseCmdline();
    // A failed suspend or resume switches to the fail-safe start-up manifest,
    // over any "boot:" choice, when that file exists.
    void ParseRebootReason();
    // Replaces path by the start-up manifest chosen on the command line, if any.
    void UpdateStartupYaml(std::string& path);
    void GetBoardInfo();
    // Waits for the anonymous pipe, then logs what is pending in it, in reads
    // of at most 899 bytes with one line each.
    void ReceiveChildProcessMsg();
    // Wakes a reader blocked in ReceiveChildProcessMsg, so that a stop can finish.
    void WakeChildMsgReader();
    // Closes both pipe ends, each only if open.
    void ClosePipes();
    // Whether a base manifest entry with this configuration path is started:
    // always, unless the path names a file of the enable table whose feature
    // is missing from the command line.
    bool IsEnableByCmdline(const std::string& cfgPath);
    // Logs each feature named on the command line that no entry claimed.
    void CheckEnableFeatures();

    // The kill manager: told which applications of process type 1 live.
    void OpenKillMgr();
    void CloseKillMgr();
    void ModifyKillMgrTask(const std::string& name, uint32_t pid, uint32_t code);
    void WaitToKillMgr(uint32_t timeout);
    void StartWaitKillMgr();
    // Boot stages to the boot-dot files and, the important ones, the serial console.
    void BootMark(uint32_t code);
    void InitBootDot();
    void SetUidAndGid(const std::string& uid, const std::string& gid);
    void GetUidAndGid(int32_t& uid, int32_t& gid) const;
    // One line, truncating; false with a warning when the file doesn't open.
    bool WriteFile(const std::string& path, const std::string& text);

    // The hardware watchdog: true when the module is in, or isn't wanted.
    bool InsertWatchdogKo(const StavikCfg& cfg);
    bool CheckWatchdogKo(const std::string& koName);
    bool InsmodKo(const StavikCfg& cfg);
    bool EnableFeedDog(const StavikCfg& cfg);

    int32_t selfPid_ = -1;
    int32_t slotId_ = -1;
    bool selinuxEnable_ = false;
    std::string cmdlineStartupYaml_;
    bool disableWatchDog_ = false;
    bool yrncoreEnable_ = false;
    bool isQuickStart_ = false;
    // Delayed core binding: 0 idle, 1 checking, 2 finished.
    std::atomic<uint32_t> coreAffinityState_{0};
    // Set while a stop of the delayed-binding check waits for it to end.
    std::atomic<uint8_t> interruptCheck_{0};
    // Set, the delayed-binding check ends its pass; cleared at wake-up.
    std::atomic<uint8_t> suspendCheck_{0};
    int childMsgPipe_[2] = {-1, -1};
    // Features of the enable table named on the command line, each with 1 once
    // a manifest entry claimed it. Only the command-line reader adds entries.
    std::map<std::string, uint8_t> enableFeatures_;
    int32_t killMgrFd_ = -1;
    // Set before the wait for the kill manager: the ends it causes are normal ones.
    std::atomic<uint8_t> isKillMgrWait_{0};
    int32_t uid_ = 0;
    int32_t gid_ = 0;

private:
    BootContext() = default;
    BootContext(const BootContext&) = delete;
    BootContext& operator=(const BootContext&) = delete;

    void CreateChildMsgPipe();
    bool WaitForChildMsg();

    int wakeFd_ = -1;
};

} // namespace Stavik

#endif
