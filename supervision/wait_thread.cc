#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

#include "app/steady_clock.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"
#include "supervision/helper_children.h"

namespace Stavik {
namespace {

const uint64_t CHILDLESS_SLEEP_NS = 30 * NS_PER_MS;
// A dead helper stays until its starter collects it, which is at hand.
const uint64_t HELPER_PAUSE_NS = NS_PER_MS;
constexpr int32_t EXIT_CODE_MASK = 0xff;
constexpr int EXIT_CODE_SHIFT = 8;
constexpr int32_t SIGNAL_MASK = 0x7f;
constexpr int32_t CORE_BIT = 0x80;

// The status as wait() would have given it.
int32_t WaitStatusOf(const siginfo_t& info)
{
    switch (info.si_code) {
        case CLD_EXITED:
            return (info.si_status & EXIT_CODE_MASK) << EXIT_CODE_SHIFT;
        case CLD_DUMPED:
            return (info.si_status & SIGNAL_MASK) | CORE_BIT;
        default:
            return info.si_status & SIGNAL_MASK;
    }
}

void Reap(pid_t pid)
{
    int ignored = 0;
    while (waitpid(pid, &ignored, WNOHANG) == -1 && errno == EINTR) {
    }
}

} // namespace

// A dead child is first only looked at and stays a zombie, so that its pid
// can't be reused, until its status is in its record; only then is it
// collected. So no signal of the daemon can reach a stranger: a sender checks
// hasExitStatus_ under the record's mutex, and until that is set the pid is
// still the dead child's. The daemon's own helpers are collected by their starters.
void StavikDaemon::WaitThread()
{
    while (isRunning_) {
        siginfo_t info {};
        if (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0 || info.si_pid < 1) {
            SleepNs(CHILDLESS_SLEEP_NS);
            continue;
        }
        if (HelperChildren::Instance().Claims(info.si_pid)) {
            SleepNs(HELPER_PAUSE_NS);
            continue;
        }
        if (info.si_pid != wakeChildPid_.load()) {
            DeliverExitStatus(info.si_pid, WaitStatusOf(info), SteadyNowNs());
        }
        Reap(info.si_pid);
    }
    Syslog(LOG_WARNING, "STAVIK: WaitThread exit now.");
}

// A pid may have been reused while an older record still carries it: the
// oldest live record across both lists is the one whose process died. The
// bound passes from the general search to the base search, so a tie goes to
// the general record. One mutex at a time.
void StavikDaemon::DeliverExitStatus(int32_t pid, int32_t status, uint64_t nowNs)
{
    uint64_t bound = nowNs;
    std::string generalName = FindGeneralAppByPid(pid, bound);
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        size_t index = FindBaseAppIndexByPid(pid, bound);
        if (index < executedBaseApp_.size()) {
            executedBaseApp_[index].SetExitStatus(status);
            return;
        }
    }
    if (generalName.empty()) {
        Syslog(LOG_WARNING, "STAVIK: can not find app, pid=%d", pid);
        return;
    }
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    auto entry = generalAppMap_.find(generalName);
    if (entry != generalAppMap_.end()) {
        entry->second->SetExitStatus(status);
    }
}

std::string StavikDaemon::FindGeneralAppByPid(int32_t pid, uint64_t& bound)
{
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    std::string name;
    for (const auto& entry : generalAppMap_) {
        const App::GeneralAppInfo& app = *entry.second;
        if (app.state_ != TERMINATED && app.pid_ == pid && app.startTime_ < bound) {
            bound = app.startTime_;
            name = entry.first;
        }
    }
    return name;
}

size_t StavikDaemon::FindBaseAppIndexByPid(int32_t pid, uint64_t bound) const
{
    size_t found = executedBaseApp_.size();
    for (size_t index = 0; index < executedBaseApp_.size(); ++index) {
        const App::BaseAppInfo& app = executedBaseApp_[index];
        if (app.state_ != TERMINATED && app.pid_ == pid && app.startTime_ < bound) {
            bound = app.startTime_;
            found = index;
        }
    }
    return found;
}

} // namespace Stavik
