#include "app/exit_status.h"

#include <signal.h>
#include <sys/wait.h>

#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

constexpr int32_t SIGNAL_MASK = 0x7f;
constexpr int32_t CORE_BIT = 0x80;
constexpr int32_t STOPPED_LOW_BITS = 0x7f;
constexpr int32_t LOW_BYTE = 0xff;
constexpr int EXIT_CODE_SHIFT = 8;

// A look at the state of one child that neither waits nor collects anything.
constexpr int QUERY_WAIT_OPTIONS = WEXITED | WSTOPPED | WCONTINUED | WNOHANG | WNOWAIT;
constexpr int32_t EXEC_STATE_RUNNING = 0;
constexpr int32_t EXEC_STATE_TERMINATED = 1;
constexpr int32_t EXEC_STATE_STOPPED = 2;

int32_t SignalOf(int32_t status)
{
    return status & SIGNAL_MASK;
}

// A signal that ended the process: neither a normal exit nor a stop report.
bool IsKilledBySignal(int32_t status)
{
    int32_t signal = SignalOf(status);
    return signal != 0 && signal != STOPPED_LOW_BITS;
}

void LogSignalEnd(const AppInfo& app, int32_t signal)
{
    const char* name = app.appName_.c_str();
    switch (signal) {
        case SIGABRT:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by calling abort(), signal=%d", name, app.pid_,
                   signal);
            break;
        case SIGILL:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by illegal instruction by signal=%d", name,
                   app.pid_, signal);
            break;
        case SIGTRAP:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by trap signal=%d", name, app.pid_, signal);
            break;
        case SIGINT:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by interrupt signal=%d", name, app.pid_,
                   signal);
            break;
        case SIGTERM:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by calling Term(), signal=%d", name, app.pid_,
                   signal);
            break;
        case SIGSTOP:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d stopped by signal=%d", name, app.pid_, signal);
            break;
        case SIGKILL:
            Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d terminated by calling Kill(), signal=%d", name, app.pid_,
                   signal);
            break;
        default:
            Syslog(LOG_ERR, "STAVIK : Process=%s, pid=%d got unexpected signal=%d", name, app.pid_, signal);
            break;
    }
}

} // namespace

bool IsCoredumpSignal(int32_t status)
{
    if (!IsKilledBySignal(status)) {
        return false;
    }
    switch (SignalOf(status)) {
        case SIGQUIT:
        case SIGILL:
        case SIGTRAP:
        case SIGABRT:
        case SIGBUS:
        case SIGFPE:
        case SIGSEGV:
        case SIGXCPU:
        case SIGXFSZ:
        case SIGSYS:
            return true;
        default:
            return false;
    }
}

bool IsSelfExit(int32_t status, int code)
{
    return SignalOf(status) == 0 && ((status >> EXIT_CODE_SHIFT) & LOW_BYTE) == code;
}

void ExitStatusLog(const AppInfo& app, int32_t status)
{
    int32_t signal = SignalOf(status);
    if (signal == 0) {
        Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d was self terminated, the exit status is %d.",
               app.appName_.c_str(), app.pid_, (status >> EXIT_CODE_SHIFT) & LOW_BYTE);
    } else if (signal == STOPPED_LOW_BITS) {
        Syslog(LOG_WARNING, "STAVIK : Process=%s, pid=%d was unexpectedly terminated", app.appName_.c_str(), app.pid_);
    } else if ((status & CORE_BIT) != 0) {
        Syslog(LOG_ERR, "STAVIK: Process=%s, pid=%d was coredump", app.appName_.c_str(), app.pid_);
    } else {
        LogSignalEnd(app, signal);
    }
}

void AppInfo::SetExitStatus(int32_t status)
{
    exitStatus_ = status;
    hasExitStatus_ = true;
    Syslog(LOG_INFO, "STAVIK : SetExitStatus %s, pid=%d", appName_.c_str(), pid_);
}

// Only peeks: the wait thread alone collects a status, so none is lost. A
// process that has ended, whether or not its status is collected yet, counts
// as terminated; a pid whose status was collected is never asked about again,
// as it may belong to another process by now.
int32_t AppInfo::QueryStopped()
{
    if (hasExitStatus_) {
        return EXEC_STATE_TERMINATED;
    }
    siginfo_t info {};
    if (waitid(P_PID, static_cast<id_t>(pid_), &info, QUERY_WAIT_OPTIONS) == -1) {
        return EXEC_STATE_TERMINATED;
    }
    if (info.si_pid == 0) {
        return EXEC_STATE_RUNNING;
    }
    switch (info.si_code) {
        case CLD_STOPPED:
        case CLD_TRAPPED:
            Syslog(LOG_INFO, "STAVIK : app=%s, pid=%d, stopped", appName_.c_str(), pid_);
            return EXEC_STATE_STOPPED;
        case CLD_CONTINUED:
            return EXEC_STATE_RUNNING;
        default:
            return EXEC_STATE_TERMINATED;
    }
}

} // namespace App
} // namespace Stavik
