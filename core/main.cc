#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "core/boot_context.h"
#include "core/constants.h"
#include "core/boot_strace.h"
#include "core/log.h"
#include "core/sk_log.h"
#include "core/standardization_path.h"
#include "core/stavik_daemon.h"
#include "zul.h"

namespace {

const int MIN_ARGC = 2;
const std::string QUICK_START_WORD = "true";

int FailEarly()
{
    Stavik::CloseLog();
    return -1;
}

} // namespace

int main(int argc, char* argv[])
{
    // First of all, so that a continue signal arriving at any moment after exec is kept.
    signal(SIGCONT, Stavik::StavikDaemon::ContinueSignalHandler);
    Stavik::BootContext& context = Stavik::BootContext::Instance();
    context.selfPid_ = static_cast<int32_t>(getpid());
    Stavik::OpenLog(Stavik::SK_LOG_IDENT.c_str());
    signal(SIGPIPE, SIG_IGN);
    // One malloc arena for all threads: the daemon's threads allocate little,
    // and every further arena costs resident pages and more to copy at each fork.
    mallopt(M_ARENA_MAX, 1);
    if (argc < MIN_ARGC) {
        SK_LOG(LOG_ERR, "Stavik: intput argc num is < 2, please input baseService yaml config path");
        return FailEarly();
    }
    if (argc != MIN_ARGC) {
        context.isQuickStart_ = (QUICK_START_WORD == argv[2]);
    }
    if (setenv(Stavik::PROC_NAME_ENV.c_str(), Stavik::SK_LOG_IDENT.c_str(), 1) != 0) {
        SK_LOG(LOG_ERR, "STAVIK : Master SetStavikProcName failed: setenv failed");
        return FailEarly();
    }
    std::string path;
    if (!Stavik::StandardizationPath(argv[1], path)) {
        SK_LOG(LOG_ERR, "Stavik: StandardizationPath failed, path: %s", argv[1]);
        return FailEarly();
    }
    SK_LOG(LOG_INFO, "Stavik: main begin: baseServiceCfgPath: %s", path.c_str());
    SK_LOG(LOG_INFO, "%s, SK main begin", Stavik::BootStrace(Stavik::SK_TAG).c_str());
    uint32_t rc = Stavik::StavikRun(path);
    if (rc != 0) {
        Stavik::Syslog(LOG_WARNING, "stavik-daemon StavikRun failed");
    } else {
        Stavik::Syslog(LOG_INFO, "stavik-daemon StavikRun finished");
    }
    ZULRetrieveService();
    Stavik::CloseLog();
    return static_cast<int>(rc);
}
