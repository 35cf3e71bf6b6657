// A resource published and used by this process.
#include <atomic>
#include <chrono>
#include <thread>

#include "client/zul_resource_client.h"
#include "ipc_test_env.h"
#include "zul.h"

namespace IpcTest {
namespace {

constexpr const char* RES_NAME = "/res/stavik/test_res";

struct ResourceRecord {
    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
    // The slow command: entered, withdrawal under way, finished.
    std::atomic<bool> slowInside{false};
    std::atomic<bool> withdrawing{false};
    std::atomic<bool> slowDone{false};
};

ResourceRecord& Record()
{
    static ResourceRecord record;
    return record;
}

int32_t OpenEntry(ZulFile*)
{
    ++Record().opens;
    return 0;
}

int32_t CloseEntry(ZulFile*)
{
    ++Record().closes;
    return 0;
}

constexpr uint32_t SLOW_CMD = 9;

// Adds cmd to every word of the record. The slow command stays inside until
// a withdrawal has begun, and a while longer, so a withdrawal that doesn't
// wait for it returns first.
int32_t IoctlEntry(ZulFile*, uint32_t cmd, ZulIoctlArg* arg)
{
    if (cmd == SLOW_CMD) {
        Record().slowInside = true;
        WaitUntil([] { return Record().withdrawing.load(); }, 5000);
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::yield();
        }
        Record().slowDone = true;
    }
    uint32_t* words = static_cast<uint32_t*>(arg->data);
    for (uint64_t i = 0; i < arg->size / sizeof(uint32_t); ++i) {
        words[i] += cmd;
    }
    return static_cast<int32_t>(cmd * 10 + 1);
}

class ZulResourceTest : public TubixDirTest {
protected:
    void SetUp() override
    {
        TubixDirTest::SetUp();
        Record().opens = 0;
        Record().closes = 0;
        ZulServiceParam param{RES_NAME, &ops_, 5000};
        ASSERT_EQ(ZULRegisterService(&param), 0);
    }

    void TearDown() override
    {
        ZULRetrieveService();
        TubixDirTest::TearDown();
    }

    ZulServiceOps ops_{nullptr, nullptr, IoctlEntry, OpenEntry, CloseEntry, nullptr};
};

// Commands from other processes are proven with the daemon's own resource.
TEST_F(ZulResourceTest, LargeRecordsAndWithdrawal)
{
    ZulServiceParam again{RES_NAME, &ops_, 5000};
    EXPECT_EQ(ZULRegisterService(&again), -17);

    Stavik::ZulResourceClient client;
    ASSERT_EQ(client.Open(RES_NAME, 5000), 0);
    std::vector<uint32_t> record(36920 / 4, 7);
    int32_t result = 0;
    ASSERT_EQ(client.Ioctl(4, record.data(), 36920, &result, 10000), 0);
    EXPECT_EQ(result, 41);
    EXPECT_EQ(record.front(), 11u);
    EXPECT_EQ(record.back(), 11u);
    EXPECT_EQ(Record().opens, 1);

    EXPECT_EQ(ZULRetrieveService(), 0);
    EXPECT_EQ(Record().closes, 1);
    EXPECT_LT(client.Ioctl(1, record.data(), 4, &result, 10000), 0);
    EXPECT_EQ(client.Close(), 0);

    Stavik::ZulResourceClient late;
    EXPECT_EQ(late.Open(RES_NAME, 100), -11);
}

TEST_F(ZulResourceTest, WithdrawalWaitsForAnIoctlInFlight)
{
    Stavik::ZulResourceClient client;
    ASSERT_EQ(client.Open(RES_NAME, 5000), 0);
    uint32_t word = 0;
    int32_t result = 0;
    std::thread caller([&] { client.Ioctl(SLOW_CMD, &word, sizeof(word), &result, 10000); });
    ASSERT_TRUE(WaitUntil([] { return Record().slowInside.load(); }));
    Record().withdrawing = true;
    EXPECT_EQ(ZULRetrieveService(), 0);
    EXPECT_TRUE(Record().slowDone);
    EXPECT_EQ(Record().closes, 1);
    caller.join();
}

} // namespace
} // namespace IpcTest
