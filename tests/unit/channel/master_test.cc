// The owner-pipe table against a real IPC server living in this test process.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "channel/master.h"
#include "core/app_tables.h"
#include "core/log.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/wire/wire_test_support.h"

namespace Stavik {
namespace {

using WireTest::TextRecord;

const char* const OWNER = "owner_svc";

struct ServerSide {
    std::mutex mutex;
    std::vector<int32_t> fds;
};

// Never destroyed: the library's threads may still deliver while the test exits.
ServerSide& Server()
{
    static ServerSide* server = new ServerSide();
    return *server;
}

void OnConnect(int32_t fd, const char*, uint32_t)
{
    std::lock_guard<std::mutex> guard(Server().mutex);
    Server().fds.push_back(fd);
}

void OnRequest(int32_t, const TubixRequest*) {}

class MasterTest : public WireTest::LoggedTest {
protected:
    static void SetUpTestSuite()
    {
        sandbox_ = new ::Stavik::Test::Sandbox();
        setenv("TUBIX_DIR", sandbox_->TubixDir().c_str(), 1);
        setenv("PROC_NAME", OWNER, 1);
        TubixServerParam param{};
        param.connectCallback = OnConnect;
        param.requestCallback = OnRequest;
        param.maxConnections = 0;
        param.threadNum = 1;
        ASSERT_EQ(0, TubixCreateServer(&param));
    }
    static void TearDownTestSuite()
    {
        delete sandbox_;
    }

    static ::Stavik::Test::Sandbox* sandbox_;
};

::Stavik::Test::Sandbox* MasterTest::sandbox_ = nullptr;

size_t OpenSockets()
{
    size_t sockets = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        sockets += std::filesystem::read_symlink(entry.path(), error).string().rfind("socket:", 0) == 0 ? 1 : 0;
    }
    return sockets;
}

int32_t NewestServerFd(size_t known)
{
    int32_t fd = 0;
    ::Stavik::Test::WaitUntil([&] {
        std::lock_guard<std::mutex> guard(Server().mutex);
        fd = Server().fds.size() > known ? Server().fds.back() : 0;
        return fd != 0;
    });
    return fd;
}

size_t KnownServerFds()
{
    std::lock_guard<std::mutex> guard(Server().mutex);
    return Server().fds.size();
}

TEST_F(MasterTest, OpenOfAMissingServiceIsRepeatedOnceAndLeavesMinusOne)
{
    Master master;
    EXPECT_FALSE(master.RegServiceCallBack("nobody_listens", 7, [](int32_t, const TubixRequest*, std::string) {}));
    EXPECT_EQ(1u, LogCapture::Count("STAVIK : TubixOpen failed, try again"));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : RegServiceCallBack failed!! ret=-11, errno="));
    EXPECT_EQ(-1, master.GetOwnerFd("nobody_listens"));
    EXPECT_EQ(-1, master.GetOwnerFd("never_registered"));

    EXPECT_FALSE(master.RegServiceCallBack("", 0, [](int32_t, const TubixRequest*, std::string) {}));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : RegServiceCallBack failed: procName is null"));
}

// Records travelling both ways, with the owner's name bound to its requests,
// are proven by the daemon's control runs.
TEST_F(MasterTest, ClosedPipeFailsTheFirstRecordAndStops)
{
    Master master;
    ASSERT_TRUE(master.RegServiceCallBack(OWNER, 0, [](int32_t, const TubixRequest*, std::string) {}));
    int32_t fd = master.GetOwnerFd(OWNER);
    master.UnRegServiceCallBack(OWNER);
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Master UnRegServiceCallBack success proName: " + std::string(OWNER) +
                                     " fd: " + std::to_string(fd)));
    EXPECT_EQ(-1, master.GetOwnerFd(OWNER));

    std::vector<Message::RequestMsg> records(3, TextRecord(4, "0#"));
    EXPECT_FALSE(master.SendRequestMsg(fd, records));
    EXPECT_EQ(1u, LogCapture::Count("STAVIK : Master SendRequestMsg failed, err code="));

    EXPECT_FALSE(master.SendRequestMsg(fd, {}));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Master SendRequestMsg failed: RequestPieceMsg is empty"));

    master.UnRegServiceCallBack("never_registered");
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Master UnRegServiceCallBack failed: TubixClosePipe failed err code: "));
}

// The check thread closes a dead service's pipe while it holds baseAppMutex_,
// and a callback of that pipe may be waiting for the same mutex.
TEST_F(MasterTest, ClosesNeverWaitOnACallbackAndLeaveNoSocket)
{
    size_t socketsBefore = OpenSockets();
    Master master;
    std::atomic<int> waiting{0};
    OwnerRequestHandler handler = [&](int32_t, const TubixRequest* req, std::string) {
        if (req != nullptr) {
            ++waiting;
            std::lock_guard<std::mutex> lock(baseAppMutex_);
        }
    };
    size_t known = KnownServerFds();
    ASSERT_TRUE(master.RegServiceCallBack(OWNER, 0, handler));
    int32_t first = master.GetOwnerFd(OWNER);
    NewestServerFd(known);

    // A restart registers again: the old pipe is closed, not left behind.
    known = KnownServerFds();
    ASSERT_TRUE(master.RegServiceCallBack(OWNER, 0, handler));
    EXPECT_NE(first, master.GetOwnerFd(OWNER));
    EXPECT_EQ(-9, TubixClosePipe(first));
    int32_t serverFd = NewestServerFd(known);

    std::chrono::steady_clock::duration took{};
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        Message::RequestMsg report = TextRecord(3, "1#2#");
        ASSERT_EQ(0, TubixSendRequest(serverFd, TubixRequest{0, &report, sizeof(report)}));
        ASSERT_TRUE(::Stavik::Test::WaitUntil([&] { return waiting == 1; }));
        auto start = std::chrono::steady_clock::now();
        master.UnRegServiceCallBack(OWNER);
        took = std::chrono::steady_clock::now() - start;
    }
    EXPECT_LT(took, std::chrono::milliseconds(1000));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Master UnRegServiceCallBack success proName: " + std::string(OWNER)));
    EXPECT_FALSE(LogCapture::Contains("UnRegServiceCallBack failed"));
    EXPECT_TRUE(::Stavik::Test::WaitUntil([&] { return OpenSockets() == socketsBefore; }))
        << OpenSockets() << " sockets, " << socketsBefore << " before";
}

} // namespace
} // namespace Stavik
