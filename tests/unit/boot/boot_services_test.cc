// What the daemon asks of the watchdog, with stand-ins for the two kernel
// calls: no driver is touched.
#include <gtest/gtest.h>

#include <cerrno>

#include "boot/kernel_calls.h"
#include "boot/stavik_cfg.h"
#include "core/boot_context.h"
#include "core/log.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

struct KernelRequest {
    unsigned long request;
    unsigned long arg;
    std::string params;
};
std::vector<KernelRequest> requests;

int RecordIoctl(int, unsigned long request, unsigned long arg)
{
    requests.push_back({request, arg, ""});
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
        unsetenv("STAVIK_SYSROOT");
    }

    Stavik::Test::Sandbox sandbox_;
    KernelCalls saved_ = CurrentKernelCalls();
    BootContext& context_ = BootContext::Instance();
};

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
        EXPECT_TRUE(c.params.empty() || (c.params == requests[0].params && requests[0].arg == 0)) << c.line;
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
