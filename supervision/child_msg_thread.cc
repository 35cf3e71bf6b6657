#include "core/boot_context.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"

namespace Stavik {
namespace {

const uint64_t CHILD_MSG_PAUSE_NS = 500 * NS_PER_MS;

} // namespace

void StavikDaemon::ReceiveChildProcessMsgThread()
{
    while (isRunning_) {
        BootContext::Instance().ReceiveChildProcessMsg();
        if (!isRunning_) {
            break;
        }
        SleepNs(CHILD_MSG_PAUSE_NS);
    }
    Syslog(LOG_WARNING, "STAVIK: ReceiveChildProcessMsgThread exit now.");
}

} // namespace Stavik
