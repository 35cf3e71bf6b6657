// A pipe of this process to a server in another process.
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "core/log.h"
#include "ipc_test_env.h"

namespace IpcTest {
namespace {

// What a pipe's handler received: the messages, and a null when the peer went.
class Inbox {
public:
    struct Seen {
        std::vector<std::vector<uint8_t>> messages;
        int nulls = 0;
    };

    TubixRequestHandler Handler()
    {
        auto shared = shared_;
        return [shared](int32_t, const TubixRequest* req) {
            std::lock_guard<std::mutex> guard(shared->mutex);
            if (req == nullptr) {
                ++shared->seen.nulls;
                return;
            }
            const uint8_t* data = static_cast<const uint8_t*>(req->data);
            shared->seen.messages.emplace_back(data, data + req->size);
        };
    }
    Seen Now() const
    {
        std::lock_guard<std::mutex> guard(shared_->mutex);
        return shared_->seen;
    }

private:
    struct Shared {
        std::mutex mutex;
        Seen seen;
    };
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

int32_t Send(int32_t fd, const std::string& text)
{
    return TubixSendRequest(fd, TubixRequest{0, text.data(), static_cast<uint32_t>(text.size())});
}

using TubixPipeTest = TubixDirTest;

// One server for the whole run, killed at its end to show how a peer's going is reported.
TEST_F(TubixPipeTest, MessagesKeepBoundariesOrderAndCallersAndAGonePeerIsReportedOnce)
{
    Peer server = RunPeer("echo", {"server"});
    Inbox inbox;
    int32_t fd = OpenService("echo", inbox.Handler());
    ASSERT_GT(fd, 0);

    std::vector<uint8_t> answer(65536);
    for (uint32_t size : {0u, 1u, 4096u, 65536u}) {
        std::vector<uint8_t> payload(size);
        for (uint32_t i = 0; i < size; ++i) {
            payload[i] = static_cast<uint8_t>(i == 0 ? 'x' : i * 7 + 1);
        }
        TubixRequest req{0, payload.data(), size};
        TubixResponse resp{0, answer.data(), static_cast<uint32_t>(answer.size())};
        ASSERT_EQ(TubixTimedRPCSync(fd, &req, &resp, 10000), 0) << size;
        EXPECT_EQ(resp.id, req.id);
        ASSERT_EQ(resp.size, size);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), answer.begin())) << size;
    }
    std::vector<uint8_t> tooBig(65537, 'x');
    EXPECT_EQ(TubixSendRequest(fd, TubixRequest{0, tooBig.data(), 65537}), -90);

    // The server answers the first call only after the second one, so the answers cross.
    std::string first;
    std::thread caller([&] { first = Rpc(fd, "hold"); });
    EXPECT_TRUE(WaitUntil([&] { return Rpc(fd, "report").find("held=1") != std::string::npos; }));
    EXPECT_EQ(Rpc(fd, "flush"), "flushed");
    caller.join();
    EXPECT_EQ(first, "hold");

    Stavik::LogCapture::Begin();
    EXPECT_EQ(Rpc(fd, "hold", 100), "rc=-110");
    EXPECT_EQ(Rpc(fd, "flush"), "flushed");
    EXPECT_TRUE(WaitUntil([] { return Stavik::LogCapture::Contains("nobody waits for the response"); }));
    Stavik::LogCapture::End();

    char small[2];
    std::string text = "too long";
    TubixRequest req{0, text.data(), static_cast<uint32_t>(text.size())};
    TubixResponse resp{0, small, sizeof(small)};
    EXPECT_EQ(TubixTimedRPCSync(fd, &req, &resp, 10000), -90);
    EXPECT_EQ(resp.size, text.size());
    EXPECT_TRUE(inbox.Now().messages.empty());

    // The order of a client's messages is the server test's.
    ASSERT_EQ(Send(fd, "push 2000"), 0);
    ASSERT_TRUE(WaitUntil([&] { return inbox.Now().messages.size() == 2000; }, 20000));
    std::vector<std::vector<uint8_t>> received = inbox.Now().messages;
    for (uint32_t seq = 0; seq < received.size(); ++seq) {
        ASSERT_EQ(received[seq], SeqMessage(seq)) << seq;
    }

    // From inside its own callback a close is refused as busy, and the pipe
    // stays open. That a close never waits for a callback waiting on the
    // closer is proven with the daemon's pipe table.
    std::atomic<int32_t> closeResult{1};
    int32_t self = OpenService("echo", [&](int32_t pipe, const TubixRequest* req) {
        if (req != nullptr && closeResult == 1) {
            closeResult = TubixClosePipe(pipe);
        }
    });
    ASSERT_GT(self, 0);
    EXPECT_NE(self, fd);
    ASSERT_EQ(Send(self, "push 1"), 0);
    ASSERT_TRUE(WaitUntil([&] { return closeResult != 1; }));
    EXPECT_EQ(closeResult, -16);
    EXPECT_EQ(Rpc(self, "report"), "count=0 bad=0 held=0");

    // The server closes one pipe and then dies under the other.
    Inbox closedByDeath;
    int32_t second = OpenService("echo", closedByDeath.Handler());
    ASSERT_GT(second, 0);
    ASSERT_EQ(Send(fd, "close"), 0);
    EXPECT_TRUE(WaitUntil([&] { return inbox.Now().nulls == 1; }));
    server->KillGroup();
    EXPECT_TRUE(WaitUntil([&] { return closedByDeath.Now().nulls == 1; }));
    EXPECT_EQ(Send(second, "late"), -32);
    EXPECT_EQ(Rpc(second, "late"), "rc=-32");
    for (int32_t pipe : {fd, self, second}) {
        EXPECT_EQ(TubixClosePipe(pipe), 0);
    }
    EXPECT_EQ(TubixClosePipe(second), -9);
    EXPECT_EQ(inbox.Now().nulls, 1);
    EXPECT_EQ(closedByDeath.Now().nulls, 1);
}

} // namespace
} // namespace IpcTest
