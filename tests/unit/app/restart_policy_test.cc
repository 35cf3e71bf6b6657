#include <gtest/gtest.h>

#include "app/app_info.h"
#include "core/sleep.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ScopedLogCapture;

constexpr uint64_t T0 = 1000 * NS_PER_MS;

BaseAppInfo BaseWithPolicy(const std::string& restart)
{
    ManifestData data;
    data.appName = "base";
    data.restart = restart;
    return BaseAppInfo(ApplicationManifest(data));
}

// Five restarts, the oldest at T0, the others one millisecond apart.
BaseAppInfo FiveRestartsSince(uint32_t reason)
{
    BaseAppInfo app = BaseWithPolicy("on-failure");
    for (uint64_t i = 0; i < 5; ++i) {
        EXPECT_TRUE(app.NeedRestart(reason, T0 + i * NS_PER_MS));
    }
    return app;
}

TEST(RestartPolicy, SixthRestartWithinTheWindowIsFinalTheEdgeIsInclusiveAndTruncated)
{
    for (uint32_t reason : {REASON_NONE, REASON_COREDUMP}) {
        SCOPED_TRACE(reason);
        BaseAppInfo app = FiveRestartsSince(reason);
        ASSERT_EQ(app.restartHistory_.size(), 5u);
        EXPECT_EQ(app.restartHistory_.front().time, T0 + 4 * NS_PER_MS);
        EXPECT_EQ(app.restartHistory_.back().reason, reason);

        ScopedLogCapture capture;
        EXPECT_FALSE(app.NeedRestart(reason, T0 + 10 * NS_PER_MS));
        EXPECT_EQ(LevelOf("STAVIK : Process=base has restart 5 times in recent 10 ms."), LOG_ERR);
        EXPECT_EQ(app.restart_, "no");
        EXPECT_FALSE(app.IsRestartPolicyResident());
        ASSERT_EQ(app.restartHistory_.size(), 5u);
        EXPECT_EQ(app.restartHistory_.front().time, T0 + 10 * NS_PER_MS);
        EXPECT_EQ(app.restartHistory_.back().time, T0 + NS_PER_MS);

        EXPECT_FALSE(app.NeedRestart(reason, T0 + 100000 * NS_PER_MS));
        EXPECT_EQ(app.restartHistory_.front().time, T0 + 10 * NS_PER_MS);
        EXPECT_EQ(app.restartHistory_.size(), 5u);
    }

    for (uint64_t edge : {60000 * NS_PER_MS, 60000 * NS_PER_MS + 900000}) {
        EXPECT_FALSE(FiveRestartsSince(REASON_NONE).NeedRestart(REASON_NONE, T0 + edge)) << edge;
    }

    BaseAppInfo past = FiveRestartsSince(REASON_NONE);
    ScopedLogCapture capture;
    EXPECT_TRUE(past.NeedRestart(REASON_NONE, T0 + 60001 * NS_PER_MS));
    EXPECT_EQ(LevelOf("NeedRestart appName:base elapsedTime:60001"), LOG_INFO);
    EXPECT_EQ(past.restart_, "on-failure");
    ASSERT_EQ(past.restartHistory_.size(), 5u);
    EXPECT_EQ(past.restartHistory_.front().time, T0 + 60001 * NS_PER_MS);
    EXPECT_EQ(past.restartHistory_.back().time, T0 + NS_PER_MS);

    // The next window is measured from the new oldest record, one millisecond later.
    EXPECT_FALSE(past.NeedRestart(REASON_NONE, T0 + 60001 * NS_PER_MS));
}

TEST(RestartPolicy, OtherPoliciesKeepNoHistory)
{
    BaseAppInfo forever = BaseWithPolicy("on-forever");
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(forever.NeedRestart(REASON_COREDUMP));
    }
    EXPECT_TRUE(forever.restartHistory_.empty());

    for (const char* word : {"no", "", "on-until-succeed", "On-Failure"}) {
        BaseAppInfo app = BaseWithPolicy(word);
        EXPECT_FALSE(app.NeedRestart(REASON_NONE)) << word;
        EXPECT_TRUE(app.restartHistory_.empty()) << word;
    }

    // Without a given time the steady clock decides; a fast loop is refused.
    BaseAppInfo failing = BaseWithPolicy("on-failure");
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(failing.NeedRestart(REASON_IO_ERROR));
    }
    EXPECT_FALSE(failing.NeedRestart(REASON_IO_ERROR));
}

} // namespace
} // namespace App
} // namespace Stavik
