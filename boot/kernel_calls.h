#ifndef STAVIK_BOOT_KERNEL_CALLS_H
#define STAVIK_BOOT_KERNEL_CALLS_H

namespace Stavik {

// The two calls by which the daemon asks kernel drivers for something: the
// kill manager's and the watchdog's ioctls, and the module load. They go
// through here so that a host test can stand in for drivers it doesn't have.
struct KernelCalls {
    int (*ioctl)(int fd, unsigned long request, unsigned long arg);
    long (*finitModule)(int fd, const char* params, int flags);
};

KernelCalls& CurrentKernelCalls();

} // namespace Stavik

#endif
