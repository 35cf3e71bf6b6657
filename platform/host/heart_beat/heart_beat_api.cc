#include "heart_beat.h"

#include "heart_beat/checker.h"

int32_t RegisterCheckHeartBeat(const char* appName, size_t nameLen, uint32_t gid, HeartBeatNotify notify)
{
    if (appName == nullptr) {
        return -1;
    }
    return HeartBeat::Checker::Instance().Register(std::string(appName, nameLen), gid, notify);
}

int32_t UnregisterCheckHeartBeat(const char* appName, size_t nameLen)
{
    if (appName == nullptr) {
        return -1;
    }
    return HeartBeat::Checker::Instance().Unregister(std::string(appName, nameLen));
}

void DisableAllCheckHeartBeat()
{
    HeartBeat::Checker::Instance().DisableAll();
}
