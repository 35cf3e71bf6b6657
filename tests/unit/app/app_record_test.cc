#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/home_env.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ScopedLogCapture;

AppInfo RtApp(const std::string& prio, const std::string& type, std::vector<uint32_t> cores = {})
{
    ManifestData data;
    data.setRtPrio = prio;
    data.setRtType = type;
    data.coreAffinity = std::move(cores);
    data.isDelayCoreAffinity = true;
    return AppInfo(ApplicationManifest(data), "rtapp", "");
}

TEST(AppRecord, RtPriority)
{
    const std::pair<const char*, const char*> noEffect[] = {
        {"", "SCHED_FIFO"}, {"false", "SCHED_FIFO"}, {"100", "SCHED_FIFO"}, {"0", "SCHED_RR"}, {"50", "SCHED_OTHER"},
        {"5x", "SCHED_FIFO"}};
    for (const auto& [prio, type] : noEffect) {
        ScopedLogCapture capture;
        AppInfo app = RtApp(prio, type);
        EXPECT_EQ(app.schedPolicy_, SK_SCHED_UNCHANGED) << prio;
        EXPECT_EQ(app.rtPrio_, -1) << prio;
        EXPECT_FALSE(app.needRtLimit_) << prio;
        if (std::string(prio) == "5x") {
            EXPECT_EQ(LevelOf("STAVIK : rtapp, set_rt_prio has invalid char=5x"), LOG_INFO);
        } else {
            EXPECT_TRUE(LogCapture::Lines().empty()) << prio;
        }
    }

    AppInfo limitOnly = RtApp("true", "SCHED_FIFO");
    EXPECT_TRUE(limitOnly.needRtLimit_);
    EXPECT_EQ(limitOnly.schedPolicy_, SK_SCHED_UNCHANGED);
    EXPECT_EQ(limitOnly.rtPrio_, -1);

    ScopedLogCapture capture;
    AppInfo rr = RtApp("50", "SCHED_RR");
    EXPECT_TRUE(rr.needRtLimit_);
    EXPECT_EQ(rr.schedPolicy_, SK_SCHED_RR);
    EXPECT_EQ(rr.rtPrio_, 50);
    EXPECT_EQ(LevelOf("STAVIK : rtapp, rtPrio=50, rtPolicy=SCHED_RR"), LOG_INFO);
}

TEST(AppRecord, CoreSentinelAsksForFifo)
{
    ScopedLogCapture capture;
    AppInfo app = RtApp("10", "SCHED_RR", {255, 1, 2});
    EXPECT_TRUE(app.coreAffinity_.empty());
    EXPECT_EQ(app.schedPolicy_, SK_SCHED_FIFO);
    EXPECT_EQ(app.rtPrio_, 99);
    EXPECT_TRUE(app.needRtLimit_);
    EXPECT_FALSE(app.isDelayCoreAffinity_);
    EXPECT_EQ(LevelOf("STAVIK : rtapp, update schedPolicy to SCHED_FIFO"), LOG_INFO);

    AppInfo bound = RtApp("", "", {1, 255});
    EXPECT_EQ(bound.coreAffinity_.size(), 2u);
    EXPECT_TRUE(bound.isDelayCoreAffinity_);
    EXPECT_FALSE(RtApp("", "").isDelayCoreAffinity_);
}

TEST(AppRecord, GeneralAndBaseRecordsOfOneManifest)
{
    ManifestData data;
    data.appName = "worker_${*}";
    data.isReporting = true;
    data.restart = "on-failure";
    DaemonHomeEnv() = "/home/user";
    GeneralAppInfo general("worker_1", ApplicationManifest(data), "zulmgr");
    DaemonHomeEnv().clear();
    EXPECT_EQ(general.appName_, "worker_1");
    EXPECT_EQ(general.ownerName_, "zulmgr");
    EXPECT_EQ(general.homeEnv_, "/home/user");
    EXPECT_FALSE(general.isReporting_);

    BaseAppInfo base{ApplicationManifest(data)};
    EXPECT_EQ(base.appName_, "worker_${*}");
    EXPECT_TRUE(base.homeEnv_.empty());
    EXPECT_TRUE(base.isReporting_);
}

TEST(AppRecord, UpdateAppInfoTakesOnlyTheStartDescription)
{
    ManifestData first;
    first.appName = "worker_${*}";
    first.isDynamicPara = true;
    first.binPath = "${/opt/*}";
    first.restart = "on-failure";
    first.nodeType = 7;
    first.startupPriority = 3;
    first.isDelayCoreAffinity = true;
    first.coreAffinity = {1};
    GeneralAppInfo app("worker_1", ApplicationManifest(first), "zulmgr");
    app.pid_ = 42;
    app.state_ = RUNNING;
    app.isKillSent_ = true;

    ManifestData second;
    second.appName = "worker_${*}";
    second.binPath = "/opt/other";
    second.env = {{"B", "2"}};
    second.uid = 2000;
    second.nice = 3;
    second.termTimeOut = 900;
    second.cgroupPath = {{"net", "n"}};
    second.vfId = 4;
    second.coreAffinity = {255};
    second.restart = "on-forever";
    second.nodeType = 1;
    second.startupPriority = -1;
    app.UpdateAppInfo(ApplicationManifest(second));

    EXPECT_EQ(app.appName_, "worker_${*}");
    EXPECT_EQ(app.execPath_, "/opt/other");
    EXPECT_EQ(app.env_, second.env);
    EXPECT_EQ(app.uid_, 2000u);
    EXPECT_EQ(app.nice_, 3);
    EXPECT_EQ(app.termTimeOut_, 900u);
    EXPECT_EQ(app.cgroupPath_, second.cgroupPath);
    EXPECT_EQ(app.vfId_, 4);
    EXPECT_TRUE(app.coreAffinity_.empty());
    EXPECT_EQ(app.schedPolicy_, SK_SCHED_FIFO);
    EXPECT_FALSE(app.isDelayCoreAffinity_);

    EXPECT_EQ(app.restart_, "on-failure");
    EXPECT_EQ(app.ownerName_, "zulmgr");
    EXPECT_EQ(app.nodeType_, 7u);
    EXPECT_EQ(app.startupPriority_, 3);
    EXPECT_TRUE(app.isDynamicExecPath_);
    EXPECT_EQ(app.execPathPattern_, "${/opt/*}");
    EXPECT_EQ(app.pid_, 42);
    EXPECT_EQ(app.state_, RUNNING);
    EXPECT_TRUE(app.isKillSent_);
}

} // namespace
} // namespace App
} // namespace Stavik
