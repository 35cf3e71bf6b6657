#include "core/boot_context.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/sk_log.h"

namespace Stavik {
namespace {

const size_t CHILD_MSG_BUF_SIZE = 900;

} // namespace

BootContext& BootContext::Instance()
{
    static BootContext context;
    return context;
}

void BootContext::Init()
{
    selfPid_ = static_cast<int32_t>(getpid());
    UpdateSelinuxEnable();
    ParseCmdline();
    ParseRebootReason();
    CreateChildMsgPipe();
}

// Children write before exec and keep only the write end, which never blocks
// them: a full pipe loses a child's text, not the child. The read end is the
// daemon's alone; the reader polls it beside the stop's wake descriptor.
void BootContext::CreateChildMsgPipe()
{
    if (pipe2(childMsgPipe_, O_CLOEXEC | O_NONBLOCK) != 0 || fcntl(childMsgPipe_[1], F_SETFD, 0) != 0) {
        int err = errno;
        ClosePipes();
        SK_LOG(LOG_WARNING, "STAVIK: creat anonymous pipe failed, errno=%d", err);
        return;
    }
    wakeFd_ = eventfd(0, EFD_CLOEXEC);
    SK_LOG(LOG_WARNING, "%s STAVIK: creat anonymous pipe success, read pipe fd=%d, write pipe fd=%d",
           BootStrace(SK_TAG).c_str(), childMsgPipe_[0], childMsgPipe_[1]);
}

void BootContext::ReceiveChildProcessMsg()
{
    if (childMsgPipe_[0] == -1 || !WaitForChildMsg()) {
        return;
    }
    // What is pending now, read in pieces with one line each; what children
    // write meanwhile waits for the next turn.
    int pending = 0;
    if (ioctl(childMsgPipe_[0], FIONREAD, &pending) != 0 || pending < 1) {
        pending = 1;
    }
    while (pending > 0) {
        char buffer[CHILD_MSG_BUF_SIZE];
        memset(buffer, 0, sizeof(buffer));
        ssize_t length = read(childMsgPipe_[0], buffer, CHILD_MSG_BUF_SIZE - 1);
        if (length == -1) {
            if (errno != EAGAIN) {
                Syslog(LOG_WARNING, "STAVIK: sk read anonymous pipe failed, errno=%d", errno);
            }
            return;
        }
        if (length == 0) {
            return;
        }
        Syslog(LOG_WARNING, "sk receive child process errinfo size=%d, err: %s", static_cast<int>(length), buffer);
        pending -= static_cast<int>(length);
    }
}

// True when the pipe has something; false when the stop woke the reader.
bool BootContext::WaitForChildMsg()
{
    struct pollfd fds[2] = {{childMsgPipe_[0], POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    nfds_t count = wakeFd_ == -1 ? 1 : 2;
    while (poll(fds, count, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return (fds[0].revents & POLLIN) != 0 || (fds[1].revents & POLLIN) == 0;
}

void BootContext::WakeChildMsgReader()
{
    if (wakeFd_ != -1) {
        uint64_t one = 1;
        ssize_t ignored = write(wakeFd_, &one, sizeof(one));
        (void)ignored;
    }
}

void BootContext::ClosePipes()
{
    for (int& fd : childMsgPipe_) {
        if (fd != -1) {
            close(fd);
            fd = -1;
        }
    }
    if (wakeFd_ != -1) {
        close(wakeFd_);
        wakeFd_ = -1;
    }
}

} // namespace Stavik
