// A server in this process, with clients in other processes and raw sockets.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "core/log.h"
#include "ipc_test_env.h"

namespace IpcTest {
namespace {

constexpr const char* SERVER_NAME = "ipc-test-server";

// What the server's callbacks saw; they are plain functions, so it is global.
struct ServerRecord {
    std::mutex mutex;
    std::map<int32_t, std::string> names;
    std::map<int32_t, std::vector<std::vector<uint8_t>>> requests;
    std::map<int32_t, int> nulls;
};

ServerRecord& Record()
{
    static ServerRecord record;
    return record;
}

void OnConnect(int32_t fd, const char* name, uint32_t nameLen)
{
    std::lock_guard<std::mutex> guard(Record().mutex);
    Record().names[fd] = std::string(name, nameLen);
}

void OnRequest(int32_t fd, const TubixRequest* req)
{
    // The client's last call, which shows it that all it sent has arrived.
    if (req != nullptr && std::string(static_cast<const char*>(req->data), req->size) == "sync") {
        TubixSendResponse(fd, TubixResponse{req->id, const_cast<void*>(req->data), req->size});
        return;
    }
    {
        std::lock_guard<std::mutex> guard(Record().mutex);
        if (req == nullptr) {
            ++Record().nulls[fd];
        } else {
            const uint8_t* data = static_cast<const uint8_t*>(req->data);
            Record().requests[fd].emplace_back(data, data + req->size);
        }
    }
}

class TubixServerTest : public TubixDirTest {
protected:
    void SetUp() override
    {
        TubixDirTest::SetUp();
        {
            std::lock_guard<std::mutex> guard(Record().mutex);
            Record().names.clear();
            Record().requests.clear();
            Record().nulls.clear();
        }
        setenv("PROC_NAME", SERVER_NAME, 1);
        TubixServerParam param{OnConnect, OnRequest, 1000, 1, 0};
        ASSERT_EQ(TubixCreateServer(&param), 0);
        EXPECT_EQ(TubixCreateServer(&param), -98);
    }

    void TearDown() override
    {
        unsetenv("PROC_NAME");
        TubixDirTest::TearDown();
    }

    int TotalNulls()
    {
        std::lock_guard<std::mutex> guard(Record().mutex);
        int total = 0;
        for (const auto& entry : Record().nulls) {
            total += entry.second;
        }
        return total;
    }
};

std::vector<uint8_t> Frame(uint32_t magic, uint16_t kind, uint32_t id, uint32_t length, const std::string& payload)
{
    std::vector<uint8_t> packet(16 + payload.size(), 0);
    memcpy(&packet[0], &magic, 4);
    memcpy(&packet[4], &kind, 2);
    memcpy(&packet[8], &id, 4);
    memcpy(&packet[12], &length, 4);
    std::copy(payload.begin(), payload.end(), packet.begin() + 16);
    return packet;
}

std::vector<uint8_t> Good(uint16_t kind, const std::string& payload)
{
    return Frame(0x31584254, kind, 1, static_cast<uint32_t>(payload.size()), payload);
}

TEST_F(TubixServerTest, ServerSeesTheClientsNameItsRequestsInOrderAndOneDisconnect)
{
    Peer client = RunPeer("pusher", {"client", SERVER_NAME, "2500"});
    EXPECT_EQ(client->WaitExit(30000), 0);
    ASSERT_TRUE(WaitUntil([&] { return TotalNulls() == 1; }, 20000));

    std::lock_guard<std::mutex> guard(Record().mutex);
    ASSERT_EQ(Record().names.size(), 1u);
    int32_t fd = Record().names.begin()->first;
    EXPECT_GT(fd, 0);
    EXPECT_EQ(Record().names[fd], "pusher");
    const auto& requests = Record().requests[fd];
    ASSERT_EQ(requests.size(), 2500u);
    for (uint32_t seq = 0; seq < requests.size(); ++seq) {
        ASSERT_EQ(requests[seq], SeqMessage(seq)) << seq;
    }
    EXPECT_EQ(Record().nulls[fd], 1);
}

TEST_F(TubixServerTest, MalformedPacketsAreDroppedWithOneLineEach)
{
    Stavik::LogCapture::Begin();
    int raw = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_GE(raw, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = dir_ + "/" + SERVER_NAME;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    std::vector<std::vector<uint8_t>> packets = {
        Good(2, "before the hello"),
        Good(1, "raw"),
        std::vector<uint8_t>(10, 0),
        Frame(0x12345678, 2, 1, 2, "ab"),
        Frame(0x31584254, 9, 1, 2, "ab"),
        Frame(0x31584254, 2, 1, 10, "short"),
        Frame(0x31584254, 2, 1, 70000, std::string(70000, 'x')),
        std::vector<uint8_t>(),
        Good(3, "nobody asked"),
        Good(1, "second hello"),
        Good(2, "after"),
    };
    for (const auto& packet : packets) {
        ASSERT_EQ(send(raw, packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    }
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(Record().mutex);
        return !Record().requests.empty();
    }));
    {
        std::lock_guard<std::mutex> guard(Record().mutex);
        ASSERT_EQ(Record().names.size(), 1u);
        int32_t fd = Record().names.begin()->first;
        EXPECT_EQ(Record().names[fd], "raw");
        ASSERT_EQ(Record().requests[fd].size(), 1u);
        EXPECT_EQ(Record().requests[fd][0], std::vector<uint8_t>({'a', 'f', 't', 'e', 'r'}));
    }
    EXPECT_EQ(Stavik::LogCapture::Count("Tubix: drop packet"), 9u);
    EXPECT_TRUE(Stavik::LogCapture::Contains("bad magic 0x12345678"));
    EXPECT_TRUE(Stavik::LogCapture::Contains("unknown kind 9"));
    EXPECT_TRUE(Stavik::LogCapture::Contains("length 70000 disagrees with a packet of 70016 bytes"));
    EXPECT_TRUE(Stavik::LogCapture::Contains("0 bytes is shorter than a header"));
    close(raw);
    EXPECT_TRUE(WaitUntil([&] { return TotalNulls() == 1; }));
    Stavik::LogCapture::End();
}

} // namespace
} // namespace IpcTest
