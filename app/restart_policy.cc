#include <algorithm>

#include "app/app_info.h"
#include "app/steady_clock.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

// Five restarts within one minute mean a crash loop: the policy is given up.
constexpr size_t RESTART_LIMIT = 5;
constexpr int64_t RESTART_WINDOW_MS = 60000;
const char RESTART_WITHDRAWN[] = "no";

// Reserved for a special treatment of a loop of crashes with a core dump.
void HandleCoredumpLoop(const BaseAppInfo&) {}

} // namespace

bool BaseAppInfo::NeedRestart(uint32_t reason)
{
    return NeedRestart(reason, SteadyNowNs());
}

bool BaseAppInfo::NeedRestart(uint32_t reason, uint64_t nowNs)
{
    if (restart_ == RESTART_ON_FOREVER) {
        return true;
    }
    if (restart_ != RESTART_ON_FAILURE) {
        return false;
    }
    if (restartHistory_.size() < RESTART_LIMIT) {
        restartHistory_.push_front(RestartRecord{nowNs, reason});
        return true;
    }
    int64_t elapsed = ElapsedMs(restartHistory_.back().time, nowNs);
    restartHistory_.push_front(RestartRecord{nowNs, reason});
    if (elapsed > RESTART_WINDOW_MS) {
        restartHistory_.pop_back();
        Syslog(LOG_INFO, "NeedRestart appName:%s elapsedTime:%ld", appName_.c_str(), static_cast<long>(elapsed));
        return true;
    }
    bool hasCoredump = std::any_of(restartHistory_.begin(), restartHistory_.end(),
                                   [](const RestartRecord& record) { return record.reason == REASON_COREDUMP; });
    if (hasCoredump) {
        HandleCoredumpLoop(*this);
    }
    restartHistory_.pop_back();
    Syslog(LOG_ERR, "STAVIK : Process=%s has restart %u times in recent %ld ms.", appName_.c_str(),
           static_cast<unsigned>(RESTART_LIMIT), static_cast<long>(elapsed));
    // Final: from now on neither a restart nor a place in the base list.
    restart_ = RESTART_WITHDRAWN;
    return false;
}

} // namespace App
} // namespace Stavik
