// Priority applications at boot and start-up files loaded on request.
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

} // namespace
} // namespace ControlTest
} // namespace Stavik
