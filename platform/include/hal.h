#ifndef STAVIK_PLATFORM_HAL_H
#define STAVIK_PLATFORM_HAL_H

#include <cstddef>
#include <cstdint>

// The platform's hardware abstraction library: fault nodes on every device of
// the board, and shared-memory groups. All results are 0 for success.

// A fault node as it is created on one device; a fixed little-endian layout.
struct HalSensorNodeCfg {
    char name[20];       // zero-filled, then the name, NUL-terminated
    uint16_t nodeType;
    uint8_t sensorType;
    uint8_t reserved0;   // not written
    uint64_t reserved1;  // 0
};
static_assert(sizeof(HalSensorNodeCfg) == 32, "HalSensorNodeCfg layout is binding");
static_assert(offsetof(HalSensorNodeCfg, nodeType) == 20, "HalSensorNodeCfg layout is binding");
static_assert(offsetof(HalSensorNodeCfg, sensorType) == 22, "HalSensorNodeCfg layout is binding");
static_assert(offsetof(HalSensorNodeCfg, reserved1) == 24, "HalSensorNodeCfg layout is binding");

int32_t drvGetDevNum(uint32_t* count);
int32_t halSensorNodeRegister(uint32_t devId, const HalSensorNodeCfg* cfg, uint64_t* handle);
int32_t halSensorNodeUpdateState(uint32_t devId, uint64_t handle, int32_t fault, uint32_t event);
int32_t halSensorNodeUnregister(uint32_t devId, uint64_t handle);

// The creation record of a shared-memory group, 136 bytes.
struct GroupCfg {
    uint64_t maxMemSize;  // kilobytes
    uint32_t reserved0;   // 0
    uint32_t cfgMagic;    // 0x5A5A5B5B
    uint8_t reserved1[120];
};
static_assert(sizeof(GroupCfg) == 136, "GroupCfg layout is binding");
static_assert(offsetof(GroupCfg, cfgMagic) == 12, "GroupCfg layout is binding");

// Permission bits of halGrpAddProc.
constexpr uint32_t HAL_GRP_PERM_ADMIN = 1;
constexpr uint32_t HAL_GRP_PERM_READ = 2;
constexpr uint32_t HAL_GRP_PERM_WRITE = 4;
constexpr uint32_t HAL_GRP_PERM_ALLOC = 8;
// Result of halGrpCreate for a group that exists already.
constexpr int32_t HAL_GRP_EXIST = 66;

int32_t halGrpCreate(const char* name, GroupCfg cfg);
int32_t halGrpAddProc(const char* name, int32_t pid, uint32_t permission);
int32_t halGrpQuery(int32_t cmd, void* inBuff, uint32_t inLen, void* outBuff, uint32_t* outLen);

// Query commands of halGrpQuery. GROUPS answers one HAL_GRP_NAME_SIZE record
// per group, the name NUL-padded, in byte order of the names; MEMBERS answers
// one HalGrpMember per process of the group named by the input, by pid. On
// success *outLen is the length of the answer; a room too small for it gives
// -ENOSPC with the length needed in *outLen.
constexpr int32_t HAL_GRP_QUERY_GROUPS = 0;
constexpr int32_t HAL_GRP_QUERY_MEMBERS = 1;
// A group name takes fewer bytes than this, its NUL included.
constexpr uint32_t HAL_GRP_NAME_SIZE = 32;

struct HalGrpMember {
    int32_t pid;
    uint32_t permission;
};
static_assert(sizeof(HalGrpMember) == 8, "HalGrpMember layout is binding");

#endif
