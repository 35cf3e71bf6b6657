#include "tests/unit/app_start/child_probe.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "core/boot_context.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace Test {

ChildMsgPipe::ChildMsgPipe()
{
    // A child writes before exec; the application itself needn't keep the pipe.
    if (pipe2(fds_, O_CLOEXEC) == 0) {
        fcntl(fds_[0], F_SETFL, O_NONBLOCK);
    }
    BootContext::Instance().childMsgPipe_[0] = fds_[0];
    BootContext::Instance().childMsgPipe_[1] = fds_[1];
}

ChildMsgPipe::~ChildMsgPipe()
{
    BootContext::Instance().childMsgPipe_[0] = -1;
    BootContext::Instance().childMsgPipe_[1] = -1;
    close(fds_[0]);
    close(fds_[1]);
}

std::string ChildMsgPipe::ReadAll()
{
    std::string text;
    char buffer[512];
    for (ssize_t length; (length = read(fds_[0], buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(length));
    }
    return text;
}

int ReapChild(pid_t pid)
{
    int status = 0;
    if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) != 0; })) {
        return status;
    }
    KillAndReap(pid);
    return -1;
}

void KillAndReap(pid_t pid)
{
    kill(pid, SIGKILL);
    int status = 0;
    WaitUntil([&] { return waitpid(pid, &status, WNOHANG) != 0; });
}

void CopyProbe(const std::string& path, mode_t mode, uid_t owner, gid_t group)
{
    std::ifstream in(BuiltProgram("tests/probe_child"), std::ios::binary);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << in.rdbuf();
    chown(path.c_str(), owner, group);
    chmod(path.c_str(), mode);
}

SleepingChild::SleepingChild()
{
    pid_ = fork();
    while (pid_ == 0) {
        pause();
    }
}

SleepingChild::~SleepingChild()
{
    if (pid_ > 0) {
        KillAndReap(pid_);
    }
}

int SleepingChild::Reap()
{
    int status = ReapChild(pid_);
    pid_ = -1;
    return status;
}

} // namespace Test
} // namespace Stavik
