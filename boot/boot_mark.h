#ifndef STAVIK_BOOT_BOOT_MARK_H
#define STAVIK_BOOT_BOOT_MARK_H

#include <cstdint>

namespace Stavik {

// Stages of the boot, as the kernel's boot-dot facility records them.
const uint32_t BOOT_MARK_PRIORITY_APPS = 0x10000001;
const uint32_t BOOT_MARK_CONTINUE = 0x20000001;
const uint32_t BOOT_MARK_ZUL_RUNNING = 0x30000001;
const uint32_t BOOT_MARK_BRELLAN_RUNNING = 0x40000001;
const uint32_t BOOT_MARK_BOOT_DONE = 0xFFFFFFFF;

} // namespace Stavik

#endif
