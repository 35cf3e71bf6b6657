#ifndef STAVIK_TESTS_UNIT_APP_START_CHILD_PROBE_H
#define STAVIK_TESTS_UNIT_APP_START_CHILD_PROBE_H

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "core/boot_context.h"
#include "tests/support/daemon_process.h"
#include "tests/support/service_manifest.h"

// Children for the tests: the daemon's anonymous pipe, bounded waits and
// copies of the probe child.

namespace Stavik {
namespace Test {

// The child's wait status, polled for at most 10 s; -1 when it didn't end (it is then killed).
inline int ReapChild(pid_t pid)
{
    int status = 0;
    if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) != 0; })) {
        return status;
    }
    kill(pid, SIGKILL);
    WaitUntil([&] { return waitpid(pid, nullptr, WNOHANG) != 0; });
    return -1;
}

inline void KillAndReap(pid_t pid)
{
    kill(pid, SIGKILL);
    ReapChild(pid);
}

inline void CopyProbe(const std::string& path, mode_t mode, uid_t owner, gid_t group)
{
    std::ifstream in(BuiltProgram("tests/probe_child"), std::ios::binary);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << in.rdbuf();
    chown(path.c_str(), owner, group);
    chmod(path.c_str(), mode);
}

// A pipe owned by the test, installed as the daemon's child message pipe. A
// child writes before exec; the application itself needn't keep the pipe.
class ChildMsgPipe {
public:
    ChildMsgPipe()
    {
        if (pipe2(fds_, O_CLOEXEC) == 0) {
            fcntl(fds_[0], F_SETFL, O_NONBLOCK);
        }
        BootContext::Instance().childMsgPipe_[0] = fds_[0];
        BootContext::Instance().childMsgPipe_[1] = fds_[1];
    }
    ~ChildMsgPipe()
    {
        BootContext::Instance().childMsgPipe_[0] = -1;
        BootContext::Instance().childMsgPipe_[1] = -1;
        close(fds_[0]);
        close(fds_[1]);
    }
    ChildMsgPipe(const ChildMsgPipe&) = delete;
    ChildMsgPipe& operator=(const ChildMsgPipe&) = delete;

    // Everything written so far; never blocks.
    std::string ReadAll()
    {
        std::string text;
        char buffer[512];
        for (ssize_t length; (length = read(fds_[0], buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, static_cast<size_t>(length));
        }
        return text;
    }

private:
    int fds_[2] = {-1, -1};
};

// A child that waits for a signal.
inline pid_t SleepingChild()
{
    pid_t pid = fork();
    while (pid == 0) {
        pause();
    }
    return pid;
}

} // namespace Test
} // namespace Stavik

#endif
