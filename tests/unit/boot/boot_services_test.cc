// What the daemon asks of the kill manager, the watchdog and the boot-dot
// files, with stand-ins for the two kernel calls: no driver is touched.
#include <gtest/gtest.h>

#include <cerrno>

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
    std::string data; // a task request's 84 bytes, or the module parameters
};
std::vector<KernelRequest> requests;

int RecordIoctl(int, unsigned long request, unsigned long arg)
{
    bool isTask = request == 0x40046B03 || request == 0x40046B04;
    requests.push_back({request, arg, isTask ? std::string(reinterpret_cast<const char*>(arg), 84) : ""});
    return 0;
}

long RecordFinit(int, const char* params, int flags)
{
    requests.push_back({0, static_cast<unsigned long>(flags), params});
    errno = EPERM;
    return -1;
}

class BootServices : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        CurrentKernelCalls() = {RecordIoctl, RecordFinit};
        requests.clear();
        LogCapture::Begin();
    }
    void TearDown() override
    {
        LogCapture::End();
        CurrentKernelCalls() = saved_;
        context_.CloseKillMgr();
        context_.isKillMgrWait_ = 0;
        unsetenv("STAVIK_SYSROOT");
    }

    Stavik::Test::Sandbox sandbox_;
    KernelCalls saved_ = CurrentKernelCalls();
    BootContext& context_ = BootContext::Instance();
};

TEST_F(BootServices, KillManagerAndBootDotGetTheirRequestsOrOneWarningEach)
{
    context_.ModifyKillMgrTask("early", 7, KILL_MGR_TASK_START);
    for (uint32_t code : {0x10000001u, 0x20000001u, 0x30000001u, 0x40000001u, 0xFFFFFFFFu}) {
        context_.BootMark(code);
    }
    EXPECT_EQ(1u, LogCapture::Count("ModifyKillMgrTask file not exist."));
    EXPECT_EQ(5u, LogCapture::Count("stavik open file=" + sandbox_.Path("/proc/bootdot/setblk") + " fail"));
    EXPECT_EQ(2u, LogCapture::Count("stavik open file=" + sandbox_.Path("/dev/ttyAMA0") + " fail"));

    sandbox_.WriteFile("/proc/kill_mgr", "");
    sandbox_.WriteFile("/dev/ttyAMA0", "");
    context_.OpenKillMgr();
    context_.ModifyKillMgrTask("svc", 42, KILL_MGR_TASK_START);
    context_.ModifyKillMgrTask(std::string(80, 'x'), 44, KILL_MGR_TASK_END);
    context_.StartWaitKillMgr();
    context_.BootMark(0);
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(0x40046B03u, requests[0].request);
    EXPECT_EQ(std::string("\x2a\0\0\0svc", 7) + std::string(77, '\0'), requests[0].data);
    EXPECT_EQ(1u, LogCapture::Count("strcpy_s failed. ret:"));
    EXPECT_EQ(0x40046B05u, requests[1].request);
    EXPECT_EQ(200u, requests[1].arg);
    EXPECT_EQ(1, context_.isKillMgrWait_.load());
    EXPECT_NE(std::string::npos, sandbox_.ReadFile("/dev/ttyAMA0").find("]sk=0x0\n"));
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
        {false, true, true, true, "", "60", "2", false, defaults,
         "InsmodKo failed. finit_module ko=/var/sbsa_gwdt.ko failed errno=1, params=" + defaults},
        {false, false, false, true, "", "60", "2", true, "", "/var/sbsa_gwdt.ko is disable, so not need insert"},
        {false, false, true, false, "sbsa_gwdt 16384 0 - Live\n", "60", "2", false, "",
         "/var/sbsa_gwdt.ko is not existed errno=2"},
        {false, false, true, true, "x 1 0\nsbsa_gwdt_v2 16384 0 - Live\n", "60", "2", true, "",
         "Watchdog ko=sbsa_gwdt is already insert"},
        {false, false, true, true, "", "30", "0", false, "timeout=30 action=0 disable_on_poweroff=1",
         "Watchdog ko checking, ko=sbsa_gwdt has not been inserted"},
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
        EXPECT_EQ(c.result, context_.InsertWatchdogKo(cfg)) << c.line;
        EXPECT_TRUE(LogCapture::Contains(c.line)) << c.line;
        ASSERT_EQ(c.params.empty() ? 0u : 1u, requests.size()) << c.line;
        EXPECT_TRUE(c.params.empty() || (c.params == requests[0].data && requests[0].arg == 0)) << c.line;
    }
    context_.yrncoreEnable_ = context_.disableWatchDog_ = false;

    // The feeding device takes milliseconds, by value.
    setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
    EXPECT_FALSE(context_.EnableFeedDog(StavikCfg()));
    EXPECT_TRUE(LogCapture::Contains("EnableFeedDog failed. open device=/local/dev/yrnutil_watchdog failed errno=2"));
    sandbox_.WriteFile("/local/dev/yrnutil_watchdog", "");
    requests.clear();
    EXPECT_TRUE(context_.EnableFeedDog(StavikCfg()));
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0xC0085701u, requests[0].request);
    EXPECT_EQ(60000u, requests[0].arg);
}

} // namespace
} // namespace Stavik
