#include "boot/kernel_calls.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Stavik {
namespace {

int RealIoctl(int fd, unsigned long request, unsigned long arg)
{
    return ioctl(fd, request, arg);
}

// The C library has no wrapper everywhere; the number is the build machine's own.
long RealFinitModule(int fd, const char* params, int flags)
{
    return syscall(SYS_finit_module, fd, params, flags);
}

} // namespace

KernelCalls& CurrentKernelCalls()
{
    static KernelCalls calls{RealIoctl, RealFinitModule};
    return calls;
}

} // namespace Stavik
