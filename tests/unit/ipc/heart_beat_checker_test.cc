// The host heart-beat checker: what it drops, and when it calls a name lost and back.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "client/heart_beat_client.h"
#include "core/log.h"
#include "heart_beat.h"
#include "platform/host/heart_beat/beat_record.h"
#include "tests/unit/ipc/ipc_test_env.h"

namespace IpcTest {
namespace {

const gid_t NOBODY = 65534;

struct Heard {
    std::mutex mutex;
    std::vector<std::string> notes;
};

Heard& Notices()
{
    static Heard heard;
    return heard;
}

uint32_t Note(const char* name, size_t nameLen, int32_t, uint32_t status)
{
    std::lock_guard<std::mutex> lock(Notices().mutex);
    Notices().notes.push_back(std::string(name, nameLen) + ":" + std::to_string(status));
    return 1;
}

std::vector<std::string> Notes()
{
    std::lock_guard<std::mutex> lock(Notices().mutex);
    return Notices().notes;
}

sockaddr_un CheckerAddress()
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, HeartBeat::CheckerSocketPath().c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A beat of name sent by a child that runs as nobody. The child only patches
// its pid into a record made beforehand: it must not allocate after the fork.
int SendAsNobody(const std::string& name)
{
    HeartBeat::Beat beat;
    beat.name = name;
    beat.pid = 1;
    beat.intervalMs = 50;
    beat.count = 2;
    std::string datagram = HeartBeat::EncodeBeat(beat);
    sockaddr_un address = CheckerAddress();
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    pid_t child = fork();
    if (child == 0) {
        uint32_t pid = static_cast<uint32_t>(getpid());
        for (int i = 0; i < 4; ++i) {
            datagram[4 + i] = static_cast<char>((pid >> (8 * i)) & 0xFF);
        }
        bool sent = setgid(NOBODY) == 0 && setuid(NOBODY) == 0 &&
                    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
                           sizeof(address)) == static_cast<ssize_t>(datagram.size());
        _exit(sent ? 0 : 1);
    }
    close(fd);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(TubixDirTest, HeartBeatCheckerDropsStrangersAndCallsASilentNameLostUntilItBeatsAgain)
{
    Stavik::LogCapture::Begin();
    Notices().notes.clear();
    ASSERT_EQ(0, RegisterCheckHeartBeat("svc", 3, 0, Note));
    ASSERT_EQ(0, RegisterCheckHeartBeat("root_only", 9, 0, Note));

    // A malformed datagram, a name nobody registered, a sender of another group: dropped with a line each.
    const sockaddr_un address = CheckerAddress();
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(7, sendto(fd, "garbage", 7, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    close(fd);
    ASSERT_TRUE(Stavik::Client::SendHeartBeat("stranger", 50, 2));
    ASSERT_EQ(0, SendAsNobody("root_only"));
    EXPECT_TRUE(WaitUntil([] {
        return Stavik::LogCapture::Contains("HeartBeat: drop a datagram of 7 bytes from pid ") &&
               Stavik::LogCapture::Contains("HeartBeat: drop beats of stranger (pid=") &&
               Stavik::LogCapture::Contains("uid 65534 gid 65534: registered gid is 0");
    }));

    // Silent for more than count intervals: lost; the next beat: back.
    ASSERT_TRUE(Stavik::Client::SendHeartBeat("svc", 50, 2));
    EXPECT_TRUE(WaitUntil([] { return Notes() == std::vector<std::string>{"svc:1"}; }));
    ASSERT_TRUE(Stavik::Client::SendHeartBeat("svc", 50, 2));
    EXPECT_TRUE(WaitUntil([] { return Notes().size() >= 2; }));
    EXPECT_EQ("svc:0", Notes().at(1));

    EXPECT_EQ(0, UnregisterCheckHeartBeat("svc", 3));
    EXPECT_EQ(1, UnregisterCheckHeartBeat("svc", 3));
    DisableAllCheckHeartBeat();
    Stavik::LogCapture::End();
}

} // namespace
} // namespace IpcTest
