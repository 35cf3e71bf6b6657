// Priority applications at boot, start-up files loaded on request, and the
// lookup of records from the manifest tables.
#include <algorithm>

#include "tests/unit/control/control_fixture.h"

namespace Stavik {
namespace ControlTest {
namespace {

class StartupCfg : public ControlSteps {
protected:
    // One entry of a manifest file; `extra` holds further "key: value" lines.
    static std::string Entry(const std::string& name, const std::string& extra = "")
    {
        return "  - name: " + name + "\n    bin_path: " + Support::BuiltProgram("tests/probe_child") + "\n" + extra;
    }

    std::string WriteApps(const std::string& systemPath, const std::vector<std::string>& entries)
    {
        std::string text = "apps:\n";
        for (const std::string& entry : entries) {
            text += entry;
        }
        return sandbox_.WriteFile(systemPath, text);
    }

    static std::vector<std::string> StartedInOrder()
    {
        const std::string mark = "Start priority generalApp success appName=";
        std::vector<std::string> names;
        for (const CapturedLine& line : LogCapture::Lines()) {
            size_t at = line.text.find(mark);
            if (at != std::string::npos) {
                names.push_back(line.text.substr(at + mark.size(), line.text.find(',', at) - at - mark.size()));
            }
        }
        return names;
    }

    uint32_t Load(const std::string& path)
    {
        Message::StartupCfgInfo info;
        info.path = path;
        return daemon_->LoadStartCfgInfo(info);
    }
};

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
    EXPECT_EQ((std::vector<std::string>{"fine"}), StartedInOrder());

    const std::string missing = sandbox_.Path("/etc/missing.yaml");
    daemon_->InitPriorityApps(missing);
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon LoadStartCfgInfo=" + missing + " failed"));
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon InitPriorityApps failed LoadStartCfgInfo failed"));
    EXPECT_EQ(0u, Count("InitPriorityApps load priority apps cfg finish"));
    EXPECT_EQ(Message::SK_ERR_LOAD_STARTUP_CFG, daemon_->LoadStartCfgInfo(missing, list));
}

TEST_F(StartupCfg, LoadAlwaysAnswersZeroAndTheLaterManifestWins)
{
    std::string first = WriteApps("/etc/first.yaml", {Entry("a", "    args: [\"--exit\", \"1\"]\n")});
    std::string second = WriteApps("/etc/second.yaml", {Entry("a", "    args: [\"--exit\", \"2\"]\n")});
    EXPECT_EQ(0u, Load(first));
    EXPECT_EQ(0u, Load(second));
    EXPECT_EQ((std::vector<std::string>{"--exit", "2"}), Lookup("a")->arguments_);

    EXPECT_EQ(0u, Load(sandbox_.Path("/etc/missing.yaml")));
    EXPECT_EQ(LOG_ERR, LevelOf("LoadStartCfgInfo failed, path=" + sandbox_.Path("/etc/missing.yaml")));

    // An owner without a base record loads the empty path, and is answered all the same.
    daemon_->HandleLoadStartupCfg("stranger", Message::StartupCfgInfo{{}, "/etc/first.yaml"}, TubixRequest{}, -1);
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : GetStartupEntryPath not find procName=stranger"));
    EXPECT_TRUE(Count("LoadStartCfgInfo failed, path="));
    EXPECT_EQ(LOG_INFO, LevelOf("LoadStartCfgInfo finish ret=0x0, fd=-1"));
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
