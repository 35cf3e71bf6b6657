#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "boot/kernel_calls.h"
#include "boot/stavik_cfg.h"
#include "core/boot_context.h"
#include "core/log.h"
#include "core/sys_root.h"

namespace Stavik {
namespace {

const std::string MODULE_LIST = "/proc/modules";
const std::string FEED_DOG_DEVICE = "/local/dev/yrnutil_watchdog";
// Read-write, type 'W', number 1, size field 8; the time-out goes by value all the same.
const unsigned long FEED_DOG_IOCTL = 0xC0085701;
const int64_t MS_PER_SECOND = 1000;

} // namespace

// "nowatchdog" counts only together with the kernel_utils mode.
bool BootContext::InsertWatchdogKo(const StavikCfg& cfg)
{
    if (yrncoreEnable_ && disableWatchDog_) {
        Syslog(LOG_WARNING, "Watchdog is disabled by cmdline parameter. Do not insert ko");
        return true;
    }
    if (!cfg.wdEnable) {
        Syslog(LOG_WARNING, "%s is disable, so not need insert", cfg.wdKoPath.c_str());
        return true;
    }
    if (access(SysPath(cfg.wdKoPath).c_str(), F_OK) != 0) {
        Syslog(LOG_ERR, "%s is not existed errno=%d", cfg.wdKoPath.c_str(), errno);
        return false;
    }
    if (CheckWatchdogKo(cfg.wdKoName)) {
        return true;
    }
    return InsmodKo(cfg);
}

// Any line that holds the name counts, also as part of a longer module name.
bool BootContext::CheckWatchdogKo(const std::string& koName)
{
    std::ifstream modules(SysPath(MODULE_LIST));
    std::string line;
    while (std::getline(modules, line)) {
        if (line.find(koName) != std::string::npos) {
            Syslog(LOG_WARNING, "Watchdog ko=%s is already insert", koName.c_str());
            return true;
        }
    }
    Syslog(LOG_INFO, "Watchdog ko checking, ko=%s has not been inserted", koName.c_str());
    return false;
}

bool BootContext::InsmodKo(const StavikCfg& cfg)
{
    int fd = open(SysPath(cfg.wdKoPath).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Syslog(LOG_ERR, "InsmodKo failed. open ko=%s failed errno=%d", cfg.wdKoPath.c_str(), errno);
        return false;
    }
    Syslog(LOG_INFO, "Open watchdog ko successfully, watchdog ko=%s, fd=%d", cfg.wdKoPath.c_str(), fd);
    const std::string params =
        "timeout=" + cfg.wdTimeout + " action=" + cfg.wdAction + " disable_on_poweroff=1";
    if (CurrentKernelCalls().finitModule(fd, params.c_str(), 0) != 0) {
        int err = errno;
        Syslog(LOG_ERR, "InsmodKo failed. finit_module ko=%s failed errno=%d, params=%s", cfg.wdKoPath.c_str(), err,
               params.c_str());
        close(fd);
        return false;
    }
    close(fd);
    Syslog(LOG_INFO, "Insmod %s success !!!, param=%s", cfg.wdKoPath.c_str(), params.c_str());
    return true;
}

// Once enabled, feeding is the device's business: nothing stays open here.
// A time-out that is no number raises the conversion's error to the caller,
// before anything is opened.
bool BootContext::EnableFeedDog(const StavikCfg& cfg)
{
    const int64_t timeoutMs = static_cast<int64_t>(std::stoi(cfg.wdTimeout)) * MS_PER_SECOND;
    const std::string device = SysPath(FEED_DOG_DEVICE);
    int fd = open(device.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Syslog(LOG_ERR, "EnableFeedDog failed. open device=%s failed errno=%d", FEED_DOG_DEVICE.c_str(), errno);
        return false;
    }
    Syslog(LOG_INFO, "Enable feeding dog, open device=%s successfully, fd=%d", FEED_DOG_DEVICE.c_str(), fd);
    if (CurrentKernelCalls().ioctl(fd, FEED_DOG_IOCTL, static_cast<unsigned long>(timeoutMs)) != 0) {
        int err = errno;
        Syslog(LOG_ERR, "EnableFeedDog failed. ioctl failed. device=%s, errno=%d, timeout=%lld ms",
               FEED_DOG_DEVICE.c_str(), err, static_cast<long long>(timeoutMs));
        close(fd);
        return false;
    }
    close(fd);
    Syslog(LOG_INFO, "Enable feeding watchdog ioctl successfully, device=%s, timeout=%lldms", FEED_DOG_DEVICE.c_str(),
           static_cast<long long>(timeoutMs));
    return true;
}

} // namespace Stavik
