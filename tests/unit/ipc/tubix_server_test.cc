// A server in this process, with a client in another process and a raw socket.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "core/log.h"
#include "ipc_test_env.h"

namespace IpcTest {
namespace {

constexpr const char* SERVER_NAME = "ipc-test-server";

// What the server's callbacks saw, by connection; they are plain functions, so it is global.
struct ServerRecord {
    std::mutex mutex;
    std::map<std::string, std::vector<std::vector<uint8_t>>> requests;
    std::map<int32_t, std::string> names;
    int nulls = 0;
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
    std::lock_guard<std::mutex> guard(Record().mutex);
    if (req == nullptr) {
        ++Record().nulls;
        return;
    }
    const uint8_t* data = static_cast<const uint8_t*>(req->data);
    Record().requests[Record().names[fd]].emplace_back(data, data + req->size);
}

std::vector<uint8_t> Frame(uint32_t magic, uint16_t kind, uint32_t length, const std::string& payload)
{
    std::vector<uint8_t> packet(16 + payload.size(), 0);
    const uint32_t id = 1;
    memcpy(&packet[0], &magic, 4);
    memcpy(&packet[4], &kind, 2);
    memcpy(&packet[8], &id, 4);
    memcpy(&packet[12], &length, 4);
    std::copy(payload.begin(), payload.end(), packet.begin() + 16);
    return packet;
}

std::vector<uint8_t> Good(uint16_t kind, const std::string& payload)
{
    return Frame(0x31584254, kind, static_cast<uint32_t>(payload.size()), payload);
}

TEST_F(TubixDirTest, ServerSeesNamesAndOrderedRequestsAndDropsMalformedPackets)
{
    Stavik::LogCapture::Begin();
    setenv("PROC_NAME", SERVER_NAME, 1);
    TubixServerParam param{OnConnect, OnRequest, 1000, 1, 0};
    ASSERT_EQ(TubixCreateServer(&param), 0);
    EXPECT_EQ(TubixCreateServer(&param), -98);
    unsetenv("PROC_NAME");

    Peer client = RunPeer("pusher", {"client", SERVER_NAME, "500"});
    EXPECT_EQ(client->WaitExit(30000), 0);
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(Record().mutex);
        return Record().nulls == 1;
    }, 20000));

    int raw = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, (dir_ + "/" + SERVER_NAME).c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(connect(raw, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const std::vector<std::vector<uint8_t>> packets = {
        Good(2, "before the hello"),
        Good(1, "raw"),
        std::vector<uint8_t>(10, 0),
        Frame(0x12345678, 2, 2, "ab"),
        Frame(0x31584254, 9, 2, "ab"),
        Frame(0x31584254, 2, 10, "short"),
        Frame(0x31584254, 2, 70000, std::string(70000, 'x')),
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
        return Record().requests.count("raw") != 0;
    }));
    close(raw);
    EXPECT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> guard(Record().mutex);
        return Record().nulls == 2;
    }));

    std::lock_guard<std::mutex> guard(Record().mutex);
    ASSERT_EQ(Record().requests.size(), 2u);
    const auto& pushed = Record().requests["pusher"];
    ASSERT_EQ(pushed.size(), 500u);
    for (uint32_t seq = 0; seq < pushed.size(); ++seq) {
        ASSERT_EQ(pushed[seq], SeqMessage(seq)) << seq;
    }
    const std::vector<std::vector<uint8_t>> after = {{'a', 'f', 't', 'e', 'r'}};
    EXPECT_EQ(Record().requests["raw"], after);
    EXPECT_EQ(Stavik::LogCapture::Count("Tubix: drop packet"), 9u);
    for (const char* why : {"bad magic 0x12345678", "unknown kind 9", "length 70000 disagrees with a packet of 70016 bytes",
                            "0 bytes is shorter than a header"}) {
        EXPECT_TRUE(Stavik::LogCapture::Contains(why)) << why;
    }
    Stavik::LogCapture::End();
}

} // namespace
} // namespace IpcTest
