#include "channel/name_tables.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "resource/core_affinity_mgr.h"

namespace Stavik {

// A process that another service started passes its news on to the naming
// service; the daemon keeps no record of it, and any owner may send this.
void StavikDaemon::UpdateAppExecState(const Message::AppExecInfo& info)
{
    Syslog(LOG_INFO,
           "%s SK receive APP_EXECUTION_REPORT msg from brellan report appName=%s, pid=%u, gid=%u, state=%s",
           BootStrace(SK_TAG).c_str(), info.appName.c_str(), info.pid, info.gid,
           GetAppExecStateStr(info.state).c_str());
    Message::AppStateInfo state;
    state.appName = info.appName;
    state.pid = info.pid;
    state.gid = info.gid;
    state.reason = REASON_NONE;
    state.state = info.state == static_cast<uint32_t>(Message::AppExecState::RUNNING)
                      ? static_cast<uint32_t>(RUNNING_NORMAL_START)
                      : static_cast<uint32_t>(TERMINATED_NORMAL_EXIT);
    if (state.state == static_cast<uint32_t>(TERMINATED_NORMAL_EXIT)) {
        CoreAffinityMgr::Instance().RecycleThreadCoreInfo(info.pid, info.appName);
    }
    (void)ReportAppState({state}, ZUL_MGR_NAME);
}

} // namespace Stavik
