#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"
#include "supervision/sys_check_server.h"

namespace Stavik {
namespace {

const uint64_t SYS_CHECK_SLEEP_NS = 200 * NS_PER_MS;

} // namespace

// The short sleep only lets the thread end soon after the stop; the check
// itself acts once a minute.
void SysCheck(StavikDaemon* daemon)
{
    Syslog(LOG_INFO, "STAVIK: SysCheck begin");
    SysCheckServer server;
    if (!server.Init()) {
        return;
    }
    while (daemon->IsRunning()) {
        server.CheckMemory();
        SleepNs(SYS_CHECK_SLEEP_NS);
    }
    server.Stop();
}

} // namespace Stavik
