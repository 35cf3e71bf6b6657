#include "client/heart_beat_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "platform/host/heart_beat/beat_record.h"

namespace Stavik {
namespace Client {
namespace {

const suseconds_t SEND_WAIT_US = 100000;

struct BeatPlan {
    std::string name;
    uint32_t intervalMs = HEART_BEAT_DEFAULT_INTERVAL_MS;
    uint32_t count = HEART_BEAT_DEFAULT_COUNT;
};

std::atomic<bool>& Paused()
{
    static std::atomic<bool> paused{false};
    return paused;
}

uint32_t EnvNumber(const char* name, uint32_t fallback)
{
    const char* text = getenv(name);
    if (text == nullptr) {
        return fallback;
    }
    char* end = nullptr;
    unsigned long value = strtoul(text, &end, 10);
    return *end == '\0' && value > 0 && value <= UINT32_MAX ? static_cast<uint32_t>(value) : fallback;
}

void SleepMs(uint32_t milliseconds)
{
    timespec request {static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
    timespec remaining {};
    while (nanosleep(&request, &remaining) == -1) {
        request = remaining;
    }
}

// The checker's queue holds few datagrams: a beat waits a while for room
// rather than being lost when many services beat at once.
int BeatSocket()
{
    static const int fd = [] {
        int beatFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        timeval wait {0, SEND_WAIT_US};
        if (beatFd >= 0) {
            setsockopt(beatFd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
        }
        return beatFd;
    }();
    return fd;
}

void BeatForEver(BeatPlan plan)
{
    while (true) {
        if (!Paused().load()) {
            SendHeartBeat(plan.name, plan.intervalMs, plan.count);
        }
        SleepMs(plan.intervalMs);
    }
}

} // namespace

bool StartHeartBeat()
{
    const char* wanted = getenv("GRP_HB");
    const char* name = getenv("PROC_NAME");
    if (wanted == nullptr || strcmp(wanted, "1") != 0 || name == nullptr || name[0] == '\0') {
        return false;
    }
    BeatPlan plan;
    plan.name = name;
    plan.intervalMs = EnvNumber("GRP_HB_INTERVAL", HEART_BEAT_DEFAULT_INTERVAL_MS);
    plan.count = EnvNumber("GRP_HB_COUNT", HEART_BEAT_DEFAULT_COUNT);
    // The thread beats for the life of the process.
    std::thread(BeatForEver, plan).detach();
    return true;
}

void PauseHeartBeat(bool paused)
{
    Paused().store(paused);
}

// A checker that isn't there yet loses the beat; the next one tries again.
bool SendHeartBeat(const std::string& name, uint32_t intervalMs, uint32_t count)
{
    HeartBeat::Beat beat;
    beat.name = name;
    beat.pid = getpid();
    beat.intervalMs = intervalMs;
    beat.count = count;
    const std::string datagram = HeartBeat::EncodeBeat(beat);
    const std::string path = HeartBeat::CheckerSocketPath();
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (BeatSocket() < 0 || path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return sendto(BeatSocket(), datagram.data(), datagram.size(), 0,
                  reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
           static_cast<ssize_t>(datagram.size());
}

} // namespace Client
} // namespace Stavik
