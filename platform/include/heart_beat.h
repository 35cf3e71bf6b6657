#ifndef STAVIK_PLATFORM_HEART_BEAT_H
#define STAVIK_PLATFORM_HEART_BEAT_H

#include <cstddef>
#include <cstdint>

// The platform's heart-beat library: watches named applications that beat
// and tells the daemon, from a thread of its own, when one is lost (status 1)
// or has recovered (status 0).

// Supplied by the daemon; 1 when the status was handled, 0 otherwise.
typedef uint32_t (*HeartBeatNotify)(const char* appName, size_t nameLen, int32_t pid, uint32_t status);

// 0 on success. The library never calls notify from within register or unregister.
int32_t RegisterCheckHeartBeat(const char* appName, size_t nameLen, uint32_t gid, HeartBeatNotify notify);
int32_t UnregisterCheckHeartBeat(const char* appName, size_t nameLen);
void DisableAllCheckHeartBeat();

#endif
