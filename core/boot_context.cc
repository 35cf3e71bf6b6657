#include "core/boot_context.h"

#include <poll.h>
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
    CreateChildMsgPipe();
}

void BootContext::CreateChildMsgPipe()
{
    if (pipe(childMsgPipe_) != 0) {
        childMsgPipe_[0] = -1;
        childMsgPipe_[1] = -1;
        SK_LOG(LOG_WARNING, "STAVIK: creat anonymous pipe failed, errno=%d", errno);
        return;
    }
    // The read end stays blocking as children expect; the wake descriptor lets a
    // stop interrupt the reader without writing anything into the pipe.
    wakeFd_ = eventfd(0, EFD_CLOEXEC);
    SK_LOG(LOG_WARNING, "%s STAVIK: creat anonymous pipe success, read pipe fd=%d, write pipe fd=%d",
           BootStrace(SK_TAG).c_str(), childMsgPipe_[0], childMsgPipe_[1]);
}

void BootContext::ReceiveChildProcessMsg()
{
    if (childMsgPipe_[0] == -1) {
        return;
    }
    if (wakeFd_ != -1) {
        struct pollfd fds[2] = {{childMsgPipe_[0], POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        while (poll(fds, 2, -1) < 0 && errno == EINTR) {
        }
        if ((fds[1].revents & POLLIN) != 0 && (fds[0].revents & POLLIN) == 0) {
            return;
        }
    }
    char buffer[CHILD_MSG_BUF_SIZE];
    memset(buffer, 0, sizeof(buffer));
    ssize_t length = read(childMsgPipe_[0], buffer, CHILD_MSG_BUF_SIZE - 1);
    if (length == -1) {
        Syslog(LOG_WARNING, "STAVIK: sk read anonymous pipe failed, errno=%d", errno);
    } else if (length > 0) {
        Syslog(LOG_WARNING, "sk receive child process errinfo size=%d, err: %s", static_cast<int>(length), buffer);
    }
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
