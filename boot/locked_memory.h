#ifndef STAVIK_BOOT_LOCKED_MEMORY_H
#define STAVIK_BOOT_LOCKED_MEMORY_H

#include <cstdint>
#include <string>

namespace Stavik {

// The MAX_LOCKED_MEMORY_LIMIT value of an environment file (resolved under the
// sandbox root), read from column 24 of the first line that holds the key:
// the key is expected at the start of its line. Unlimited (all ones) when the
// file, the key or a number is missing, or the value says "unlimited".
uint64_t GetLockedMemoryLimitFromCfg(const std::string& path);

// Sets the soft and hard locked-memory limit, which every child inherits.
void SetLockedMemoryLimit(const std::string& path);

} // namespace Stavik

#endif
