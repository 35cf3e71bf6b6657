#include <sys/wait.h>

#include "app/steady_clock.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"

namespace Stavik {
namespace {

const uint64_t CHILDLESS_SLEEP_NS = 30 * NS_PER_MS;

} // namespace

void StavikDaemon::WaitThread()
{
    while (isRunning_) {
        int status = 0;
        pid_t pid = wait(&status);
        if (pid < 1) {
            SleepNs(CHILDLESS_SLEEP_NS);
            continue;
        }
        if (pid == wakeChildPid_.load()) {
            continue;
        }
        DeliverExitStatus(pid, status, SteadyNowNs());
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
