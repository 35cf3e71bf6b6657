#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {

// Runs after the checks of the same pass, so a change has been handled before
// its record goes. A dead base application stays while its policy is resident:
// the next pass restarts it.
void StavikDaemon::RemoveFinishedApps()
{
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        size_t index = 0;
        while (index < executedBaseApp_.size()) {
            const App::BaseAppInfo& app = executedBaseApp_[index];
            if (app.state_ != TERMINATED || app.IsRestartPolicyResident()) {
                ++index;
                continue;
            }
            Syslog(LOG_INFO, "STAVIK : Process %s removed from the list of executedBaseApp_", app.appName_.c_str());
            executedBaseApp_.erase(executedBaseApp_.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    for (auto entry = generalAppMap_.begin(); entry != generalAppMap_.end();) {
        if (entry->second->state_ != TERMINATED) {
            ++entry;
            continue;
        }
        Syslog(LOG_INFO, "STAVIK : Process %s removed from the list of generalAppMap_", entry->second->appName_.c_str());
        entry = generalAppMap_.erase(entry);
    }
}

} // namespace Stavik
