#ifndef STAVIK_CORE_SYS_ROOT_H
#define STAVIK_CORE_SYS_ROOT_H

#include <string>

namespace Stavik {

// Resolves a fixed system path (configuration, cgroup tree, /dev/kmsg, ...)
// under the optional sandbox root named by STAVIK_SYSROOT. Per-process entries
// under /proc/<pid> must not go through here: they have to see real processes.
std::string SysPath(const std::string& path);

} // namespace Stavik

#endif
