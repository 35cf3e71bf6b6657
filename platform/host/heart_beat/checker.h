#ifndef STAVIK_PLATFORM_HOST_HEART_BEAT_CHECKER_H
#define STAVIK_PLATFORM_HOST_HEART_BEAT_CHECKER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "heart_beat.h"
#include "heart_beat/beat_record.h"

namespace HeartBeat {

// Watches the registered names: beats arrive as datagrams on one socket, and
// a name whose beats stop for `count` intervals is lost until its next beat.
// One thread of its own receives the beats, judges silence and calls the
// notify functions, never with mutex_ held, so register and unregister never
// wait for a notify and never call one.
class Checker {
public:
    static Checker& Instance();
    ~Checker();

    int32_t Register(const std::string& name, uint32_t gid, HeartBeatNotify notify);
    int32_t Unregister(const std::string& name);
    // Stops the thread and forgets every name; returns once no notify runs.
    void DisableAll();

private:
    struct Watch {
        uint32_t gid = 0;
        HeartBeatNotify notify = nullptr;
        bool hasBeaten = false;
        bool isLost = false;
        uid_t uid = 0;
        int32_t pid = 0;
        uint64_t silenceLimitNs = 0;
        uint64_t lastBeatNs = 0;
    };
    struct Notice {
        std::string name;
        int32_t pid;
        uint32_t status;
        HeartBeatNotify notify;
    };
    // The descriptors of one run of the thread.
    struct Run {
        int socket = -1;
        int wake = -1;
        std::shared_ptr<std::atomic<bool>> stop;
    };

    Checker() = default;
    bool StartLocked();
    void Loop(Run run);
    void ReceiveAll(int socket, std::vector<Notice>& notices);
    void Accept(const Beat& beat, const ucred& sender, std::vector<Notice>& notices);
    void FindLost(uint64_t nowNs, std::vector<Notice>& notices);
    int PollTimeoutMs(uint64_t nowNs);
    void Drop(const std::string& why);

    std::mutex mutex_;
    std::map<std::string, Watch> watches_;
    std::thread thread_;
    Run run_;
    // Names whose unregistered beats were logged once already.
    std::set<std::string> strangers_;
    uint64_t dropWindowNs_ = 0;
    uint32_t dropLinesInWindow_ = 0;
    uint64_t dropsUntold_ = 0;
};

} // namespace HeartBeat

#endif
