// What the daemon asks of the kill manager and the watchdog, seen through
// stand-ins for the two kernel calls: no driver is touched.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "boot/kernel_calls.h"
#include "boot/kill_mgr.h"
#include "boot/stavik_cfg.h"
#include "core/boot_context.h"
#include "core/log.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

struct KernelRequest {
    unsigned long request;
    unsigned long arg;
    std::string record; // the 84 bytes of a task request
    std::string params;
};
std::vector<KernelRequest> requests;
long finitResult = -1;

int RecordIoctl(int, unsigned long request, unsigned long arg)
{
    bool isTask = request == (KILL_MGR_IOCTL_BASE | KILL_MGR_TASK_START) ||
                  request == (KILL_MGR_IOCTL_BASE | KILL_MGR_TASK_END);
    requests.push_back({request, arg, isTask ? std::string(reinterpret_cast<const char*>(arg), 84) : "", ""});
    return 0;
}

long RecordFinit(int, const char* params, int flags)
{
    requests.push_back({0, static_cast<unsigned long>(flags), "", params});
    errno = EPERM;
    return finitResult;
}

class BootServices : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        saved_ = CurrentKernelCalls();
        CurrentKernelCalls() = {RecordIoctl, RecordFinit};
        requests.clear();
        LogCapture::Begin();
    }
    void TearDown() override
    {
        LogCapture::End();
        CurrentKernelCalls() = saved_;
        context_.CloseKillMgr();
        context_.yrncoreEnable_ = context_.disableWatchDog_ = false;
        unsetenv("STAVIK_SYSROOT");
    }

    Stavik::Test::Sandbox sandbox_;
    KernelCalls saved_{};
    BootContext& context_ = BootContext::Instance();
};

TEST_F(BootServices, KillManagerGetsTheFixedNumbersAndTheRecordOrNothing)
{
    context_.ModifyKillMgrTask("early", 7, KILL_MGR_TASK_START);
    EXPECT_EQ(1u, LogCapture::Count("ModifyKillMgrTask file not exist."));
    sandbox_.WriteFile("/proc/kill_mgr", "");
    context_.OpenKillMgr();
    context_.ModifyKillMgrTask("svc", 42, KILL_MGR_TASK_START);
    context_.ModifyKillMgrTask(std::string(79, 'n'), 43, KILL_MGR_TASK_END);
    context_.ModifyKillMgrTask(std::string(80, 'x'), 44, KILL_MGR_TASK_END);
    context_.StartWaitKillMgr();

    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(0x40046B03u, requests[0].request);
    EXPECT_EQ(std::string("\x2a\0\0\0svc", 7) + std::string(77, '\0'), requests[0].record);
    EXPECT_EQ(0x40046B04u, requests[1].request);
    EXPECT_EQ(std::string("\x2b\0\0\0", 4) + std::string(79, 'n') + '\0', requests[1].record);
    EXPECT_EQ(1u, LogCapture::Count("strcpy_s failed. ret:"));
    EXPECT_EQ(1u, LogCapture::Count(", 44, 4]"));
    EXPECT_EQ(0x40046B05u, requests[2].request);
    EXPECT_EQ(200u, requests[2].arg);
    EXPECT_EQ(1, context_.isKillMgrWait_.load());
    EXPECT_EQ(1u, LogCapture::Count(" WaitToKillMgr success. timout:200"));
    context_.isKillMgrWait_ = 0;
}

TEST_F(BootServices, WatchdogDecisionsFollowCommandLineConfigurationAndModuleList)
{
    struct Case {
        bool yrncore, noWatchdog, enable, koFile;
        std::string modules, timeout, action;
        bool result;
        std::string params, line;
    };
    const std::string defaults = "timeout=60 action=2 disable_on_poweroff=1";
    const std::vector<Case> cases = {
        {true, true, true, true, "", "60", "2", true, "", "Watchdog is disabled by cmdline parameter. Do not insert ko"},
        {false, true, true, true, "", "60", "2", false, defaults, "InsmodKo failed. finit_module ko=/var/sbsa_gwdt.ko failed errno=1, params=" + defaults},
        {false, false, false, true, "", "60", "2", true, "", "/var/sbsa_gwdt.ko is disable, so not need insert"},
        {false, false, true, false, "sbsa_gwdt 16384 0 - Live\n", "60", "2", false, "", "/var/sbsa_gwdt.ko is not existed errno=2"},
        {false, false, true, true, "x 1 0\nsbsa_gwdt_v2 16384 0 - Live\n", "60", "2", true, "", "Watchdog ko=sbsa_gwdt is already insert"},
        {false, false, true, true, "", "30", "0", false, "timeout=30 action=0 disable_on_poweroff=1", "Watchdog ko checking, ko=sbsa_gwdt has not been inserted"},
    };
    for (const Case& c : cases) {
        Stavik::Test::Sandbox sandbox;
        setenv("STAVIK_SYSROOT", sandbox.Root().c_str(), 1);
        sandbox.WriteFile("/proc/modules", c.modules);
        if (c.koFile) {
            sandbox.WriteFile("/var/sbsa_gwdt.ko", "not a module");
        }
        context_.yrncoreEnable_ = c.yrncore;
        context_.disableWatchDog_ = c.noWatchdog;
        StavikCfg cfg;
        cfg.wdEnable = c.enable;
        cfg.wdTimeout = c.timeout;
        cfg.wdAction = c.action;
        requests.clear();
        LogCapture::Begin();
        EXPECT_EQ(c.result, context_.InsertWatchdogKo(cfg)) << c.line;
        EXPECT_TRUE(LogCapture::Contains(c.line)) << c.line;
        ASSERT_EQ(c.params.empty() ? 0u : 1u, requests.size()) << c.line;
        if (!c.params.empty()) {
            EXPECT_EQ(c.params, requests[0].params);
            EXPECT_EQ(0u, requests[0].arg);
        }
    }
    setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
    sandbox_.WriteFile("/var/sbsa_gwdt.ko", "");
    finitResult = 0;
    StavikCfg cfg;
    LogCapture::Begin();
    EXPECT_TRUE(context_.InsmodKo(cfg));
    EXPECT_TRUE(LogCapture::Contains("Insmod /var/sbsa_gwdt.ko success !!!, param=" + defaults));
    finitResult = -1;

    // The feeding device takes milliseconds, by value.
    EXPECT_FALSE(context_.EnableFeedDog(cfg));
    EXPECT_TRUE(LogCapture::Contains("EnableFeedDog failed. open device=/local/dev/yrnutil_watchdog failed errno=2"));
    sandbox_.WriteFile("/local/dev/yrnutil_watchdog", "");
    requests.clear();
    EXPECT_TRUE(context_.EnableFeedDog(cfg));
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0xC0085701u, requests[0].request);
    EXPECT_EQ(60000u, requests[0].arg);
}

TEST_F(BootServices, MarksWithoutBootDotFilesWarnOncePerFileAndMarkZeroReachesTheConsole)
{
    for (uint32_t code : {0x10000001u, 0x20000001u, 0x30000001u, 0x40000001u, 0xFFFFFFFFu}) {
        context_.BootMark(code);
    }
    EXPECT_EQ(5u, LogCapture::Count("stavik open file=" + sandbox_.Path("/proc/bootdot/setblk") + " fail"));
    EXPECT_EQ(2u, LogCapture::Count("stavik open file=" + sandbox_.Path("/dev/ttyAMA0") + " fail"));
    sandbox_.WriteFile("/dev/ttyAMA0", "old text that is longer\n");
    sandbox_.WriteFile("/proc/bootdot/initblk", "");
    context_.BootMark(0);
    context_.InitBootDot();
    EXPECT_EQ("sk=0x0\n", sandbox_.ReadFile("/dev/ttyAMA0").substr(sandbox_.ReadFile("/dev/ttyAMA0").find("sk=")));
    EXPECT_EQ("15,305441741,2788429825,4294967295\n", sandbox_.ReadFile("/proc/bootdot/initblk"));
}

} // namespace
} // namespace Stavik
