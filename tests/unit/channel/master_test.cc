// The owner-pipe table against a real IPC server living in this test process.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
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
        TubixServerParam param{OnConnect, OnRequest, 0, 1, 0};
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

// The server's end of the pipe that the registration opens.
int32_t ServerFdOf(const std::function<bool()>& registration)
{
    size_t known = 0;
    {
        std::lock_guard<std::mutex> guard(Server().mutex);
        known = Server().fds.size();
    }
    int32_t fd = 0;
    EXPECT_TRUE(registration());
    ::Stavik::Test::WaitUntil([&] {
        std::lock_guard<std::mutex> guard(Server().mutex);
        fd = Server().fds.size() > known ? Server().fds.back() : 0;
        return fd != 0;
    });
    return fd;
}

// Records travelling both ways, with the owner's name bound to its requests,
// are proven by the daemon's control runs.
TEST_F(MasterTest, FailedOpensSendsAndClosesAreLoggedAndLeaveNoEntry)
{
    Master master;
    const OwnerRequestHandler ignore = [](int32_t, const TubixRequest*, std::string) {};
    EXPECT_FALSE(master.RegServiceCallBack("nobody_listens", 7, ignore));
    EXPECT_EQ(1u, LogCapture::Count("STAVIK : TubixOpen failed, try again"));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : RegServiceCallBack failed!! ret=-11, errno="));
    EXPECT_EQ(-1, master.GetOwnerFd("nobody_listens"));
    EXPECT_FALSE(master.RegServiceCallBack("", 0, ignore));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : RegServiceCallBack failed: procName is null"));

    ASSERT_TRUE(master.RegServiceCallBack(OWNER, 0, ignore));
    int32_t fd = master.GetOwnerFd(OWNER);
    master.UnRegServiceCallBack(OWNER);
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Master UnRegServiceCallBack success proName: " + std::string(OWNER) +
                                     " fd: " + std::to_string(fd)));
    EXPECT_EQ(-1, master.GetOwnerFd(OWNER));

    // A closed pipe fails the first record and the rest are not tried.
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
    auto registration = [&] { return master.RegServiceCallBack(OWNER, 0, handler); };
    ServerFdOf(registration);
    int32_t first = master.GetOwnerFd(OWNER);

    // A restart registers again: the old pipe is closed, not left behind.
    int32_t serverFd = ServerFdOf(registration);
    EXPECT_NE(first, master.GetOwnerFd(OWNER));
    EXPECT_EQ(-9, TubixClosePipe(first));

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
    // The server's end of an earlier test's pipe may still be closing when counted before.
    EXPECT_TRUE(::Stavik::Test::WaitUntil([&] { return OpenSockets() <= socketsBefore; }))
        << OpenSockets() << " sockets, " << socketsBefore << " before";
}

} // namespace
} // namespace Stavik
