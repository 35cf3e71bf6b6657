// The watchdog set up from the configuration and the command line, in a
// sandbox root; the configuration file itself is read in the upload runs.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "boot/kernel_calls.h"
#include "boot/stavik_cfg.h"
#include "core/boot_context.h"
#include "core/log.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

class BootInputs : public ::testing::Test {
protected:
    void SetUp() override { Enter(box_); }
    void TearDown() override
    {
        LogCapture::End();
        unsetenv("STAVIK_SYSROOT");
    }

    // Makes box the root of the fixed paths and starts a fresh capture.
    static void Enter(const ::Stavik::Test::Sandbox& box)
    {
        setenv("STAVIK_SYSROOT", box.Root().c_str(), 1);
        LogCapture::Begin();
    }

    ::Stavik::Test::Sandbox box_;
};

// What the watchdog asked of the kernel: the module parameters, or the
// feeding ioctl and its argument.
struct KernelRequest {
    unsigned long request;
    unsigned long arg;
    std::string params;
};
std::vector<KernelRequest> kernelRequests;

TEST_F(BootInputs, WatchdogModuleFollowsCommandLineConfigurationAndModuleListAndTheDogIsFedInMilliseconds)
{
    const KernelCalls saved = CurrentKernelCalls();
    CurrentKernelCalls() = {[](int, unsigned long request, unsigned long arg) {
                                kernelRequests.push_back({request, arg, ""});
                                return 0;
                            },
                            [](int, const char* params, int flags) {
                                kernelRequests.push_back({0, static_cast<unsigned long>(flags), params});
                                errno = EPERM;
                                return -1L;
                            }};
    BootContext& context = BootContext::Instance();
    struct Case {
        bool yrncore, noWatchdog, enable, koFile;
        std::string modules;
        bool result, loads;
        std::string line;
    };
    // The module gets the configured values, not the defaults.
    const std::string params = "timeout=30 action=0 disable_on_poweroff=1";
    const std::vector<Case> cases = {
        {true, true, true, true, "", true, false, "Watchdog is disabled by cmdline parameter. Do not insert ko"},
        // "nowatchdog" alone doesn't count, only with the kernel_utils mode.
        {false, true, true, true, "", false, true,
         "InsmodKo failed. finit_module ko=/var/sbsa_gwdt.ko failed errno=1, params=" + params},
        {false, false, false, true, "", true, false, "/var/sbsa_gwdt.ko is disable, so not need insert"},
        {false, false, true, false, "sbsa_gwdt 16384 0 - Live\n", false, false,
         "/var/sbsa_gwdt.ko is not existed errno=2"},
        {false, false, true, true, "x 1 0\nsbsa_gwdt_v2 16384 0 - Live\n", true, false,
         "Watchdog ko=sbsa_gwdt is already insert"},
        {false, false, true, true, "", false, true, "Watchdog ko checking, ko=sbsa_gwdt has not been inserted"},
    };
    StavikCfg cfg;
    cfg.wdTimeout = "30";
    cfg.wdAction = "0";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        ::Stavik::Test::Sandbox box;
        Enter(box);
        box.WriteFile("/proc/modules", c.modules);
        if (c.koFile) {
            box.WriteFile("/var/sbsa_gwdt.ko", "not a module");
        }
        context.yrncoreEnable_ = c.yrncore;
        context.disableWatchDog_ = c.noWatchdog;
        cfg.wdEnable = c.enable;
        kernelRequests.clear();
        EXPECT_EQ(c.result, context.InsertWatchdogKo(cfg));
        EXPECT_EQ(1u, LogCapture::Count(c.line));
        ASSERT_EQ(c.loads ? 1u : 0u, kernelRequests.size());
        for (const KernelRequest& load : kernelRequests) {
            EXPECT_EQ(std::make_pair(params, 0ul), std::make_pair(load.params, load.arg));
        }
    }
    context.yrncoreEnable_ = context.disableWatchDog_ = false;

    Enter(box_);
    kernelRequests.clear();
    EXPECT_FALSE(context.EnableFeedDog(StavikCfg()));
    EXPECT_TRUE(LogCapture::Contains("EnableFeedDog failed. open device=/local/dev/yrnutil_watchdog failed errno=2"));
    EXPECT_TRUE(kernelRequests.empty());
    box_.WriteFile("/local/dev/yrnutil_watchdog", "");
    EXPECT_TRUE(context.EnableFeedDog(StavikCfg()));
    ASSERT_EQ(1u, kernelRequests.size());
    EXPECT_EQ(std::make_pair(0xC0085701ul, 60000ul), std::make_pair(kernelRequests[0].request, kernelRequests[0].arg));
    CurrentKernelCalls() = saved;
}

} // namespace
} // namespace Stavik
