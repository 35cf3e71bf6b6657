#include "app/terminated_reason.h"

#include "app/exit_status.h"
#include "core/log.h"

namespace Stavik {
namespace App {

// The number behind "pid=" in both lines is the record's gid_; readers of the
// log know it that way.
uint32_t GetTerminatedReason(const AppInfo& app)
{
    if (app.reportState_ != TERMINATED_ABNORMAL_EXIT) {
        return REASON_NONE;
    }
    if (IsCoredumpSignal(app.exitStatus_)) {
        Syslog(LOG_ERR, "STAVIK: appName=%s, pid=%u, terminated as coredump error", app.appName_.c_str(), app.gid_);
        return REASON_COREDUMP;
    }
    if (app.isInputOutputError_) {
        Syslog(LOG_ERR, "STAVIK: appName=%s, pid=%u, terminated as input/output error", app.appName_.c_str(),
               app.gid_);
        return REASON_IO_ERROR;
    }
    return REASON_NONE;
}

} // namespace App
} // namespace Stavik
