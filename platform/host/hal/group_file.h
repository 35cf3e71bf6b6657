#ifndef STAVIK_PLATFORM_HOST_HAL_GROUP_FILE_H
#define STAVIK_PLATFORM_HOST_HAL_GROUP_FILE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Hal {

// One shared-memory group as the host keeps it: a small text file named after
// the group under GroupsDir(), so that every process sees the same groups.
//   max_mem_size=<kilobytes>
//   cfg_magic=<number>
//   member=<pid> <permission word>     one line per process
struct GroupState {
    uint64_t maxMemSize = 0;
    uint32_t cfgMagic = 0;
    std::map<int32_t, uint32_t> members;
};

// $HAL_STATE_DIR/groups, or $TUBIX_DIR/hal/groups.
std::string GroupsDir();
// Fewer than 32 bytes, not empty, no "/" and no leading ".".
bool IsValidGroupName(const char* name);

std::string FormatGroup(const GroupState& group);
GroupState ParseGroup(const std::string& text);

// 0, or HAL_GRP_EXIST when the name is taken, even by another process at the
// same moment: the file appears whole or not at all. A negative errno otherwise.
int32_t CreateGroupFile(const std::string& name, const GroupState& group);
// Adds or replaces one member under an exclusive lock of the file; a negative
// errno (-ENOENT for an unknown group).
int32_t SetGroupMember(const std::string& name, int32_t pid, uint32_t permission);
// Under a shared lock; false when the group is unknown or unreadable.
bool ReadGroupFile(const std::string& name, GroupState& group);
// Names of every group, in byte order.
std::vector<std::string> GroupNames();

} // namespace Hal

#endif
