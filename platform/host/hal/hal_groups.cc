// Shared-memory groups of the hardware abstraction library on a host: kept in
// files (hal/group_file.h), with the driver's checks of names and processes.
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "core/log.h"
#include "hal.h"
#include "hal/group_file.h"

namespace {

int32_t QueryGroups(void* outBuff, uint32_t* outLen)
{
    std::vector<std::string> names = Hal::GroupNames();
    uint64_t needed = static_cast<uint64_t>(names.size()) * HAL_GRP_NAME_SIZE;
    if (needed > *outLen) {
        *outLen = static_cast<uint32_t>(needed);
        return -ENOSPC;
    }
    char* out = static_cast<char*>(outBuff);
    for (size_t i = 0; i < names.size(); ++i) {
        memset(out + i * HAL_GRP_NAME_SIZE, 0, HAL_GRP_NAME_SIZE);
        memcpy(out + i * HAL_GRP_NAME_SIZE, names[i].data(), names[i].size());
    }
    *outLen = static_cast<uint32_t>(needed);
    return 0;
}

int32_t QueryMembers(const void* inBuff, uint32_t inLen, void* outBuff, uint32_t* outLen)
{
    if (inBuff == nullptr) {
        return -EINVAL;
    }
    std::string name(static_cast<const char*>(inBuff), strnlen(static_cast<const char*>(inBuff), inLen));
    Hal::GroupState group;
    if (!Hal::IsValidGroupName(name.c_str()) || !Hal::ReadGroupFile(name, group)) {
        return -ENOENT;
    }
    uint64_t needed = static_cast<uint64_t>(group.members.size()) * sizeof(HalGrpMember);
    if (needed > *outLen) {
        *outLen = static_cast<uint32_t>(needed);
        return -ENOSPC;
    }
    char* out = static_cast<char*>(outBuff);
    for (const auto& member : group.members) {
        HalGrpMember entry{member.first, member.second};
        memcpy(out, &entry, sizeof(entry));
        out += sizeof(entry);
    }
    *outLen = static_cast<uint32_t>(needed);
    return 0;
}

} // namespace

int32_t halGrpCreate(const char* name, GroupCfg cfg)
{
    if (!Hal::IsValidGroupName(name)) {
        Stavik::Syslog(LOG_ERR, "HAL: group name is empty, too long or not a plain name");
        return -EINVAL;
    }
    Hal::GroupState group;
    group.maxMemSize = cfg.maxMemSize;
    group.cfgMagic = cfg.cfgMagic;
    int32_t result = Hal::CreateGroupFile(name, group);
    if (result < 0) {
        Stavik::Syslog(LOG_ERR, "HAL: create group %s failed, ret=%d", name, result);
    }
    return result;
}

int32_t halGrpAddProc(const char* name, int32_t pid, uint32_t permission)
{
    if (!Hal::IsValidGroupName(name) || pid <= 0) {
        return -EINVAL;
    }
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        return -ESRCH;
    }
    return Hal::SetGroupMember(name, pid, permission);
}

int32_t halGrpQuery(int32_t cmd, void* inBuff, uint32_t inLen, void* outBuff, uint32_t* outLen)
{
    if (outLen == nullptr || (outBuff == nullptr && *outLen > 0)) {
        return -EINVAL;
    }
    switch (cmd) {
        case HAL_GRP_QUERY_GROUPS:
            return QueryGroups(outBuff, outLen);
        case HAL_GRP_QUERY_MEMBERS:
            return QueryMembers(inBuff, inLen, outBuff, outLen);
        default:
            return -EINVAL;
    }
}
