// The log channel, the boot stamp and path normalisation.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/sk_log.h"
#include "core/standardization_path.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

TEST(BootStrace, FormatsSecondsWithTagAndIsEmptyWithoutFrequency)
{
    EXPECT_EQ("[3.141593s][BOOT_TRACE][SK]", FormatBootStrace(3141593, 1000000, "SK"));
    EXPECT_EQ("[0.500000s][BOOT_TRACE][X]", FormatBootStrace(1, 2, "X")) << "the fraction must survive";
    EXPECT_EQ("", FormatBootStrace(12345, 0, "SK"));
}

#if defined(__aarch64__)
// On 64-bit Arm the stamp is the CPU's virtual counter, read between two direct
// reads of it; a clock in its place would show another frequency and figure.
TEST(BootStrace, ReadsTheVirtualCounterOnArm)
{
    uint64_t frequency = 0;
    uint64_t before = 0;
    uint64_t after = 0;
    asm volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
    asm volatile("mrs %0, cntvct_el0\n\tisb" : "=r"(before));
    uint64_t counter = BootCounter();
    asm volatile("isb\n\tmrs %0, cntvct_el0" : "=r"(after));
    EXPECT_EQ(frequency, BootCounterFrequency());
    EXPECT_LE(before, counter);
    EXPECT_LE(counter, after);
}
#endif

TEST(SkLog, QuickStartWritesOneKmsgRecordPerLineUnderTheSandboxRoot)
{
    ::Stavik::Test::Sandbox sandbox;
    setenv("STAVIK_SYSROOT", sandbox.Root().c_str(), 1);
    BootContext& context = BootContext::Instance();
    context.selfPid_ = 4321;
    context.isQuickStart_ = true;
    LogCapture::Begin();
    SK_LOG(LOG_ERR, "first %s=%d", "value", 7);
    SK_LOG(LOG_INFO, "second");
    context.isQuickStart_ = false;
    SK_LOG(LOG_WARNING, "to syslog");
    std::vector<CapturedLine> lines = LogCapture::Lines();
    LogCapture::End();
    unsetenv("STAVIK_SYSROOT");

    EXPECT_EQ("<3> STAVIK[4321] first value=7<6> STAVIK[4321] second", sandbox.ReadFile("/dev/kmsg"));
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(lines[0].kmsg);
    EXPECT_FALSE(lines[2].kmsg);
    EXPECT_EQ("to syslog", lines[2].text);
    EXPECT_EQ(LOG_WARNING, lines[2].level);

    // Without a writable kmsg the line is dropped silently.
    setenv("STAVIK_SYSROOT", "/nonexistent-stavik-root", 1);
    context.isQuickStart_ = true;
    LogCapture::Begin();
    SK_LOG(LOG_INFO, "lost");
    EXPECT_TRUE(LogCapture::Lines().empty());
    LogCapture::End();
    context.isQuickStart_ = false;
    unsetenv("STAVIK_SYSROOT");
}

TEST(StandardizationPath, ResolvesExistingPathsAndRefusesTooLongOnes)
{
    ::Stavik::Test::Sandbox sandbox;
    std::string file = sandbox.WriteFile("/etc/a.yaml", "");
    std::string out = "untouched";
    EXPECT_TRUE(StandardizationPath(sandbox.Root() + "/etc/../etc/./a.yaml", out));
    EXPECT_EQ(file, out);

    out = "untouched";
    EXPECT_FALSE(StandardizationPath(sandbox.Root() + "/missing", out));
    EXPECT_EQ("untouched", out);
    std::string longPath = "/" + std::string(4096, 'a');
    EXPECT_FALSE(StandardizationPath(longPath, out));
    EXPECT_EQ("untouched", out);
}

} // namespace
} // namespace Stavik
