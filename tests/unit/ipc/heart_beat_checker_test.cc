// What the host heart-beat checker drops: its loss and recovery notices are
// proven by the daemon's own runs.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "client/heart_beat_client.h"
#include "core/log.h"
#include "heart_beat.h"
#include "platform/host/heart_beat/beat_record.h"
#include "tests/unit/ipc/ipc_test_env.h"

namespace IpcTest {
namespace {

const gid_t NOBODY = 65534;

// Sends the datagram to the checker, as nobody when asked. The child only
// patches its pid into the beat made beforehand: it must not allocate after the fork.
int SendDatagram(std::string datagram, bool asNobody)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, HeartBeat::CheckerSocketPath().c_str(), sizeof(address.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    pid_t child = fork();
    if (child == 0) {
        uint32_t pid = static_cast<uint32_t>(getpid());
        for (int i = 0; i < 4 && asNobody; ++i) {
            datagram[4 + i] = static_cast<char>((pid >> (8 * i)) & 0xFF);
        }
        bool sent = (!asNobody || (setgid(NOBODY) == 0 && setuid(NOBODY) == 0)) &&
                    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
                           sizeof(address)) == static_cast<ssize_t>(datagram.size());
        _exit(sent ? 0 : 1);
    }
    close(fd);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(TubixDirTest, HeartBeatCheckerDropsMalformedUnknownAndForeignBeats)
{
    Stavik::LogCapture::Begin();
    auto note = [](const char*, size_t, int32_t, uint32_t) -> uint32_t { return 1; };
    ASSERT_EQ(0, RegisterCheckHeartBeat("root_only", 9, 0, note));

    HeartBeat::Beat beat;
    beat.name = "root_only";
    beat.pid = 1;
    beat.intervalMs = 50;
    beat.count = 2;
    ASSERT_EQ(0, SendDatagram("garbage", false));
    ASSERT_TRUE(Stavik::Client::SendHeartBeat("stranger", 50, 2));
    ASSERT_EQ(0, SendDatagram(HeartBeat::EncodeBeat(beat), true));
    EXPECT_TRUE(WaitUntil([] {
        return Stavik::LogCapture::Contains("HeartBeat: drop a datagram of 7 bytes from pid ") &&
               Stavik::LogCapture::Contains("HeartBeat: drop beats of stranger (pid=") &&
               Stavik::LogCapture::Contains("uid 65534 gid 65534: registered gid is 0");
    }));

    EXPECT_EQ(0, UnregisterCheckHeartBeat("root_only", 9));
    EXPECT_EQ(1, UnregisterCheckHeartBeat("root_only", 9));
    DisableAllCheckHeartBeat();
    Stavik::LogCapture::End();
}

} // namespace
} // namespace IpcTest
