#include "core/log.h"
#include "core/sleep.h"
#include "core/stavik_daemon.h"
#include "resource/core_affinity_mgr.h"

namespace Stavik {
namespace {

const uint64_t CHECK_PERIOD_NS = 30 * NS_PER_MS;
// Passes between two upload checks and between two recyclings of dead
// threads. A count restarts at 0 but the first pass sets it to 1, so the
// first turn comes one pass early: after 10 and 20 sleeps, then every 11 and 21.
const uint32_t UPLOAD_CHECK_TURN = 11;
const uint32_t RECYCLE_TURN = 21;

} // namespace

void StavikDaemon::CheckThread()
{
    if (isRunning_) {
        RunCheckPasses();
    }
    Syslog(LOG_WARNING, "STAVIK: CheckThread exit now.");
}

// Announced processes are looked for, and dead threads of the core
// bookkeeping recycled, at the turns counted here.
void StavikDaemon::RunCheckPasses()
{
    CheckBaseApps();
    CheckGeneralApps();
    RemoveFinishedApps();
    uint32_t uploadCount = 1;
    uint32_t recycleCount = 1;
    while (true) {
        SleepNs(CHECK_PERIOD_NS);
        if (!isRunning_) {
            return;
        }
        CheckBaseApps();
        CheckGeneralApps();
        ++uploadCount;
        RemoveFinishedApps();
        ++recycleCount;
        if (uploadCount == UPLOAD_CHECK_TURN) {
            uploadCount = 0;
            CheckSkUploadApps();
        }
        if (recycleCount == RECYCLE_TURN) {
            recycleCount = 0;
            CoreAffinityMgr::Instance().RecycleDeadThreads();
        }
    }
}

} // namespace Stavik
