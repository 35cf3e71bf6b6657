#include <unistd.h>

#include <cstdlib>

#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "resource/sys_operator.h"
#include "zul.h"

namespace Stavik {
namespace {

const uint32_t SYS_SERVER_TIMEOUT_MS = 5000;
const uint32_t SYS_SERVER_LONG_TIMEOUT_MS = 1800000;

const ZulServiceOps& SysServerOps()
{
    static const ZulServiceOps ops{nullptr, nullptr, SysOperatorIoctl, SysOperatorOpen, SysOperatorClose, nullptr};
    return ops;
}

uint32_t SysServerTimeoutMs()
{
    const char* mode = getenv(BRELLAN_MODE_ENV.c_str());
    return (mode != nullptr && std::string(mode) == "1") ? SYS_SERVER_LONG_TIMEOUT_MS : SYS_SERVER_TIMEOUT_MS;
}

} // namespace

bool StavikDaemon::RegisterService(const std::string& name, uint32_t gid)
{
    // The library may deliver until the stop has closed the pipes; the gate
    // keeps a late delivery out of a daemon that is going.
    std::shared_ptr<CallbackGate> gate = callbackGate_;
    return master_.RegServiceCallBack(name, gid, [gate, this](int32_t fd, const TubixRequest* req, std::string owner) {
        gate->Pass([&] { RequestMsgHandler(fd, req, std::move(owner)); });
    });
}

void StavikDaemon::UnRegServiceCallBack(const std::string& name)
{
    master_.UnRegServiceCallBack(name);
}

// The daemon announces itself to the naming service once that service has
// come up, then publishes its own resource there.
void StavikDaemon::RegisterVfs()
{
    Message::AppStateInfo self;
    self.appName = SK_LOG_IDENT;
    self.pid = static_cast<uint32_t>(getpid());
    self.gid = static_cast<uint32_t>(getgid());
    self.state = RUNNING_NORMAL_START;
    self.reason = REASON_NONE;
    if (!ReportAppState({self}, ZUL_MGR_NAME)) {
        Syslog(LOG_ERR, "STAVIK failed: RegisterVfs ReportAppState failed");
        return;
    }
    ZulServiceParam param{};
    param.resName = SYS_SERVER_RES.c_str();
    param.ops = &SysServerOps();
    param.timeoutMs = SysServerTimeoutMs();
    Syslog(LOG_INFO, "STAVIK ZULRegisterService resFile=%s begin", SYS_SERVER_RES.c_str());
    int32_t result = ZULRegisterService(&param);
    if (result < 0) {
        Syslog(LOG_ERR, "STAVIK failed: ZULRegisterService %s failed: ret=%d", SYS_SERVER_RES.c_str(), result);
    } else {
        Syslog(LOG_INFO, "STAVIK ZULRegisterService resFile=%s success.", SYS_SERVER_RES.c_str());
    }
}

} // namespace Stavik
