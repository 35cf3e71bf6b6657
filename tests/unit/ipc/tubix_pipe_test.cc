// A pipe of this process to a server in another process.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "core/log.h"
#include "ipc_test_env.h"

namespace IpcTest {
namespace {

// What a pipe's handler received.
class Inbox {
public:
    TubixRequestHandler Handler()
    {
        auto self = state_;
        return [self](int32_t, const TubixRequest* req) {
            std::lock_guard<std::mutex> guard(self->mutex);
            if (req == nullptr) {
                ++self->nulls;
            } else {
                const uint8_t* data = static_cast<const uint8_t*>(req->data);
                self->messages.emplace_back(data, data + req->size);
            }
        };
    }
    size_t Count() const
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        return state_->messages.size();
    }
    int Nulls() const
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        return state_->nulls;
    }
    std::vector<std::vector<uint8_t>> Messages() const
    {
        std::lock_guard<std::mutex> guard(state_->mutex);
        return state_->messages;
    }

private:
    struct State {
        std::mutex mutex;
        std::vector<std::vector<uint8_t>> messages;
        int nulls = 0;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

int32_t Send(int32_t fd, const std::string& text)
{
    return TubixSendRequest(fd, TubixRequest{0, text.data(), static_cast<uint32_t>(text.size())});
}

using TubixPipeTest = TubixDirTest;

TEST_F(TubixPipeTest, MessagesKeepBoundariesAndOrderBothWays)
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

    for (uint32_t seq = 0; seq < 3000; ++seq) {
        ASSERT_EQ(SendPatiently(fd, SeqMessage(seq)), 0) << seq;
    }
    EXPECT_EQ(Rpc(fd, "report"), "count=3000 bad=0 held=0");

    ASSERT_EQ(Send(fd, "push 2000"), 0);
    ASSERT_TRUE(WaitUntil([&] { return inbox.Count() == 2000; }, 20000)) << inbox.Count();
    std::vector<std::vector<uint8_t>> received = inbox.Messages();
    for (uint32_t seq = 0; seq < received.size(); ++seq) {
        ASSERT_EQ(received[seq], SeqMessage(seq)) << seq;
    }
    EXPECT_EQ(TubixClosePipe(fd), 0);
}

TEST_F(TubixPipeTest, ResponsesReachTheirOwnCallerById)
{
    Peer server = RunPeer("echo", {"server"});
    Inbox inbox;
    int32_t fd = OpenService("echo", inbox.Handler());
    ASSERT_GT(fd, 0);

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
    EXPECT_EQ(inbox.Count(), 0u);
    EXPECT_EQ(TubixClosePipe(fd), 0);
}

TEST_F(TubixPipeTest, APeerThatGoesIsReportedOnce)
{
    Peer server = RunPeer("echo", {"server"});
    Inbox closedByServer;
    Inbox closedByDeath;
    int32_t first = OpenService("echo", closedByServer.Handler());
    int32_t second = OpenService("echo", closedByDeath.Handler());
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(Rpc(second, "ping"), "ping");

    ASSERT_EQ(Send(first, "close"), 0);
    EXPECT_TRUE(WaitUntil([&] { return closedByServer.Nulls() == 1; }));
    server->KillGroup();
    EXPECT_TRUE(WaitUntil([&] { return closedByDeath.Nulls() == 1; }));

    EXPECT_EQ(Send(second, "late"), -32);
    EXPECT_EQ(Rpc(second, "late"), "rc=-32");
    EXPECT_EQ(TubixClosePipe(first), 0);
    EXPECT_EQ(TubixClosePipe(second), 0);
    EXPECT_EQ(TubixClosePipe(second), -9);
    EXPECT_EQ(closedByServer.Nulls(), 1);
    EXPECT_EQ(closedByDeath.Nulls(), 1);
}

TEST_F(TubixPipeTest, AStoppedReaderLosesNothingAndAFullQueueFailsAtOnce)
{
    Stavik::LogCapture::Begin();
    setenv("TUBIX_SEND_QUEUE_MAX", "64", 1);
    Peer server = RunPeer("echo", {"server"});
    Inbox inbox;
    int32_t fd = OpenService("echo", inbox.Handler());
    unsetenv("TUBIX_SEND_QUEUE_MAX");
    ASSERT_GT(fd, 0);
    ASSERT_EQ(Rpc(fd, "report"), "count=0 bad=0 held=0");

    server->Signal(SIGSTOP);
    uint32_t sent = 0;
    int32_t rc = 0;
    auto started = std::chrono::steady_clock::now();
    while (rc == 0 && sent < 100000) {
        std::vector<uint8_t> message = SeqMessage(sent);
        rc = TubixSendRequest(fd, TubixRequest{0, message.data(), static_cast<uint32_t>(message.size())});
        sent += rc == 0 ? 1 : 0;
    }
    // A full queue is a hard error at once, never a wait.
    EXPECT_EQ(rc, -105);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_GT(sent, 64u);
    EXPECT_TRUE(Stavik::LogCapture::Contains("is full (64 messages)"));

    // Once the peer reads again, everything accepted arrives, in order, before what follows.
    server->Signal(SIGCONT);
    std::string expected = "count=" + std::to_string(sent) + " bad=0 held=0";
    EXPECT_TRUE(WaitUntil([] { return Stavik::LogCapture::Contains("has drained"); }, 20000));
    EXPECT_EQ(Rpc(fd, "report"), expected);
    Stavik::LogCapture::End();
    EXPECT_EQ(TubixClosePipe(fd), 0);
}

TEST_F(TubixPipeTest, ClosingAPipeWhoseCallbackRuns)
{
    Peer server = RunPeer("echo", {"server"});
    std::mutex mutex;
    std::condition_variable changed;
    int entered = 0;
    bool released = false;
    int32_t blocked = OpenService("echo", [&](int32_t, const TubixRequest* req) {
        std::unique_lock<std::mutex> lock(mutex);
        entered += req != nullptr ? 1 : 0;
        changed.notify_all();
        changed.wait_for(lock, std::chrono::seconds(20), [&] { return released; });
    });
    ASSERT_GT(blocked, 0);
    ASSERT_EQ(Send(blocked, "push 3"), 0);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return entered == 1; }));
    }
    // The close does not wait for the callback that waits on the closer.
    EXPECT_EQ(TubixClosePipe(blocked), 0);
    EXPECT_EQ(Send(blocked, "more"), -9);
    {
        std::lock_guard<std::mutex> guard(mutex);
        released = true;
        changed.notify_all();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    {
        std::lock_guard<std::mutex> guard(mutex);
        EXPECT_EQ(entered, 1);
    }

    // From inside its own callback a close is refused as busy, and the pipe stays open.
    std::atomic<int32_t> closeResult{1};
    int32_t self = OpenService("echo", [&](int32_t fd, const TubixRequest* req) {
        if (req != nullptr && closeResult == 1) {
            closeResult = TubixClosePipe(fd);
        }
    });
    ASSERT_GT(self, 0);
    ASSERT_EQ(Send(self, "push 1"), 0);
    ASSERT_TRUE(WaitUntil([&] { return closeResult != 1; }));
    EXPECT_EQ(closeResult, -16);
    EXPECT_EQ(Rpc(self, "report"), "count=0 bad=0 held=0");
    EXPECT_EQ(TubixClosePipe(self), 0);
}

TEST_F(TubixPipeTest, OpenWaitsForALateServerOrTimesOut)
{
    Stavik::LogCapture::Begin();
    setenv("TUBIX_OPEN_TIMEOUT_MS", "300", 1);
    Inbox inbox;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(OpenService("nobody", inbox.Handler()), -11);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(290));
    EXPECT_LT(waited, std::chrono::seconds(5));
    EXPECT_TRUE(Stavik::LogCapture::Contains("/nobody (gid 0): no service within 300 ms"));
    Stavik::LogCapture::End();

    setenv("TUBIX_OPEN_TIMEOUT_MS", "30000", 1);
    auto pending = std::async(std::launch::async, [&] { return OpenService("late", inbox.Handler()); });
    // Only to let the open start waiting before the server exists.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    Peer server = RunPeer("late", {"server"});
    int32_t fd = pending.get();
    ASSERT_GT(fd, 0);
    EXPECT_EQ(Rpc(fd, "hello"), "hello");
    EXPECT_EQ(TubixClosePipe(fd), 0);
}

TEST_F(TubixPipeTest, HundredsOfPipesShareTheLibraryThreadsAndLeaveNoDescriptor)
{
    Peer server = RunPeer("echo", {"server"});
    Inbox inbox;
    int32_t first = OpenService("echo", inbox.Handler());
    ASSERT_GT(first, 0);
    size_t threads = CountEntries("/proc/self/task");
    size_t fds = CountEntries("/proc/self/fd");

    std::vector<int32_t> pipes;
    for (int i = 0; i < 300; ++i) {
        pipes.push_back(OpenService("echo", inbox.Handler()));
        ASSERT_GT(pipes.back(), 0);
    }
    EXPECT_EQ(Rpc(pipes.back(), "last"), "last");
    EXPECT_LE(CountEntries("/proc/self/task"), threads);
    EXPECT_EQ(CountEntries("/proc/self/fd"), fds + pipes.size());
    for (int32_t fd : pipes) {
        EXPECT_EQ(TubixClosePipe(fd), 0);
    }
    EXPECT_EQ(CountEntries("/proc/self/fd"), fds);
    EXPECT_EQ(TubixClosePipe(first), 0);
}

} // namespace
} // namespace IpcTest
