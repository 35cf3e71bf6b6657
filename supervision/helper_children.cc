#include "supervision/helper_children.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "app/steady_clock.h"
#include "core/sleep.h"

extern char** environ;

namespace Stavik {
namespace {

const char* const SHELL_PATH = "/bin/sh";
constexpr uint64_t COLLECT_PAUSE_MIN_NS = 50000;
constexpr uint64_t COLLECT_PAUSE_MAX_NS = 2 * NS_PER_MS;

// The daemon ignores SIGPIPE; the tools get the usual end when their reader goes.
bool PrepareAttributes(posix_spawnattr_t& attributes)
{
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigset_t none;
    sigemptyset(&none);
    return posix_spawnattr_init(&attributes) == 0 &&
           posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                                     POSIX_SPAWN_SETSIGMASK) == 0 &&
           posix_spawnattr_setpgroup(&attributes, 0) == 0 &&
           posix_spawnattr_setsigdefault(&attributes, &defaults) == 0 &&
           posix_spawnattr_setsigmask(&attributes, &none) == 0;
}

} // namespace

HelperChildren& HelperChildren::Instance()
{
    static HelperChildren helpers;
    return helpers;
}

pid_t HelperChildren::StartShell(const std::string& command, int& outputFd)
{
    int output[2] = {-1, -1};
    if (pipe2(output, O_CLOEXEC) != 0) {
        return -1;
    }
    pid_t pid = -1;
    int result = Spawn(command, output[1], pid);
    close(output[1]);
    if (result != 0) {
        close(output[0]);
        errno = result;
        return -1;
    }
    outputFd = output[0];
    return pid;
}

int HelperChildren::RunShell(const std::string& command)
{
    pid_t pid = -1;
    int result = Spawn(command, -1, pid);
    if (result != 0) {
        errno = result;
        return -1;
    }
    return Finish(pid, UINT64_MAX);
}

// The registration happens under mutex_ together with the start.
int HelperChildren::Spawn(const std::string& command, int outputFd, pid_t& pid)
{
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return ENOMEM;
    }
    posix_spawnattr_t attributes;
    int result = EINVAL;
    if (posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        (outputFd < 0 || posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO) == 0) &&
        PrepareAttributes(attributes)) {
        char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command.c_str()),
                              nullptr};
        std::lock_guard<std::mutex> lock(mutex_);
        result = posix_spawn(&pid, SHELL_PATH, &actions, &attributes, argv, environ);
        if (result == 0) {
            pids_.insert(pid);
        }
        posix_spawnattr_destroy(&attributes);
    }
    posix_spawn_file_actions_destroy(&actions);
    return result;
}

int HelperChildren::Finish(pid_t pid, uint64_t deadlineNs)
{
    bool killed = false;
    uint64_t pause = COLLECT_PAUSE_MIN_NS;
    while (true) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            int status = 0;
            pid_t result = waitpid(pid, &status, WNOHANG);
            if (result == pid || (result == -1 && errno != EINTR)) {
                pids_.erase(pid);
                return result == pid ? status : -1;
            }
        }
        if (!killed && SteadyNowNs() >= deadlineNs) {
            kill(-pid, SIGKILL);
            killed = true;
        }
        SleepNs(pause);
        pause = pause * 2 > COLLECT_PAUSE_MAX_NS ? COLLECT_PAUSE_MAX_NS : pause * 2;
    }
}

bool HelperChildren::Claims(pid_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (pids_.count(pid) != 0) {
        return true;
    }
    // Collected by its starter since the wait thread looked: the pid may
    // already name a new child, and the status found is not that child's.
    siginfo_t info {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG) != 0 || info.si_pid != pid;
}

} // namespace Stavik
