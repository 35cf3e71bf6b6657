// Priority applications at boot, start-up files loaded on request, and the
// lookup of records from the manifest tables.
#include <algorithm>

#include "tests/unit/control/control_fixture.h"

namespace Stavik {
namespace ControlTest {
namespace {

using StartupCfg = ControlSteps;

TEST_F(StartupCfg, FailuresAtBootStopNeitherTheLoopNorTheBoot)
{
    Store({Probe("fine"), Broken("broken")});
    PriorityAppList list;
    for (const std::string name : {"broken", "nomanifest", "fine"}) {
        list.push_back(PriorityAppEntry{1, name, "ownerA", ApplicationManifest()});
        std::push_heap(list.begin(), list.end(), PriorityAppAfter());
    }
    daemon_->StartPriorityApps(list);

    EXPECT_EQ(LOG_INFO, LevelOf("Start priority generalApp failed appName=broken, child_pid=0"));
    EXPECT_EQ(TERMINATED, Lookup("broken")->state_);
    EXPECT_EQ(TERMINATED_ABNORMAL_EXIT, Lookup("broken")->reportState_);
    EXPECT_FALSE(IsLive("broken"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK :StartPriorityApps : appName=nomanifest is nullptr"));
    EXPECT_EQ(1u, Count("Start priority generalApp success appName=fine,"));
    EXPECT_EQ(1u, Count("Start priority generalApp success"));

    const std::string missing = sandbox_.Path("/etc/missing.yaml");
    daemon_->InitPriorityApps(missing);
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon LoadStartCfgInfo=" + missing + " failed"));
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon InitPriorityApps failed LoadStartCfgInfo failed"));
    EXPECT_EQ(0u, Count("InitPriorityApps load priority apps cfg finish"));
    EXPECT_EQ(Message::SK_ERR_LOAD_STARTUP_CFG, daemon_->LoadStartCfgInfo(missing, list));
}

TEST_F(StartupCfg, ReloadUpdatesKnownRecordsFromTheTablesAsTheyStand)
{
    Store({Probe("a", {"--exit", "1"})});
    AppPtr app = Lookup("a");
    Store({Probe("a", {"--exit", "2"})});
    EXPECT_EQ((std::vector<std::string>{"--exit", "1"}), app->arguments_);

    Message::StartupCfgInfo info;
    info.path = sandbox_.Path("/etc/missing.yaml");
    EXPECT_EQ(0u, daemon_->ReLoadStartCfgInfo(info));

    EXPECT_TRUE(Count("LoadStartCfgInfo failed, path=" + info.path));
    EXPECT_EQ((std::vector<std::string>{"--exit", "2"}), app->arguments_);
    EXPECT_EQ(app, Lookup("a"));
}

TEST_F(StartupCfg, LookupTakesStaticThenLiveThenPattern)
{
    ManifestData pattern = Probe("${worker_*}");
    pattern.isDynamicPara = true;
    Store({Probe("a"), pattern});
    AppPtr a = Lookup("a", "first");
    EXPECT_EQ(a, Lookup("a", "second"));
    EXPECT_EQ("first", a->ownerName_);

    // A live record that no static manifest knows, and one shadowed by a static record.
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        generalAppMap_["live"] = std::make_shared<App::GeneralAppInfo>();
        generalAppMap_["a"] = std::make_shared<App::GeneralAppInfo>();
    }
    EXPECT_EQ(a, Lookup("a"));
    EXPECT_NE(nullptr, Lookup("live"));

    // A record from a pattern is new each time until one of them is live.
    AppPtr worker = Lookup("worker_1");
    ASSERT_NE(nullptr, worker);
    EXPECT_EQ("worker_1", worker->appName_);
    EXPECT_NE(worker, Lookup("worker_1"));
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        generalAppMap_["worker_1"] = worker;
    }
    EXPECT_EQ(worker, Lookup("worker_1"));
    EXPECT_EQ(0u, Count("GetGeneralApp failed"));

    EXPECT_EQ(nullptr, Lookup("nothing"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : GetGeneralApp failed: app=nothing"));
    // A manifest stored later makes the name known.
    Store({Probe("nothing")});
    EXPECT_NE(nullptr, Lookup("nothing"));
}

} // namespace
} // namespace ControlTest
} // namespace Stavik
