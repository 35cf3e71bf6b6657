// The base start: enable test, dependency check, level order and its end.
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

class BaseStart : public DaemonSteps {
protected:
    void TearDown() override
    {
        std::vector<pid_t> started;
        {
            std::lock_guard<std::mutex> lock(baseAppMutex_);
            for (const App::BaseAppInfo& app : executedBaseApp_) {
                started.push_back(app.pid_);
            }
        }
        for (pid_t pid : started) {
            KillAndReap(pid);
        }
        DaemonSteps::TearDown();
    }

    std::string Manifest(const std::string& text) { return sandbox_.WriteFile("/etc/base.yaml", text); }
};

TEST_F(BaseStart, CheckDependencyTellsEachReasonInItsOwnWords)
{
    EXPECT_TRUE(daemon_->CheckDependency({}, "app"));
    EXPECT_TRUE(LogCapture::Lines().empty());

    EXPECT_FALSE(daemon_->CheckDependency({"dep"}, "app"));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : app depends on dep [app => dep]"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : app 's dependcy dep hasn't been started"));

    AddBase(Base(Data("other"), 10, RUNNING));
    EXPECT_FALSE(daemon_->CheckDependency({"dep"}, "app"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : app 's dependcy dep not find,"));

    AddBase(Base(Data("dep"), 11, STARTING));
    EXPECT_FALSE(daemon_->CheckDependency({"dep"}, "app"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : app's dependcy dep hasn't been started"));

    // Sorted order; the first that isn't running ends the check.
    LogCapture::Begin();
    EXPECT_FALSE(daemon_->CheckDependency({"other", "dep"}, "app"));
    EXPECT_TRUE(LogCapture::Contains("STAVIK : app's dependcy dep hasn't been started"));
    EXPECT_FALSE(LogCapture::Contains("other"));

    ClearTables();
    AddBase(Base(Data("dep"), 11, RUNNING));
    EXPECT_TRUE(daemon_->CheckDependency({"dep"}, "app"));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : app's dependcy dep has been started"));
}

// Byte order of a level and a failed dependant are checked through the real
// daemon in tests/e2e/base_start.
TEST_F(BaseStart, EntryOfAFeatureNotOnTheCommandLineIsNotStarted)
{
    daemon_->InitBaseApplication(Manifest(R"(apps:
  - name: plain
    bin_path: /bin/sleep
    args: ["30"]
  - name: optional
    bin_path: /bin/sleep
    args: ["30"]
    cfg_path: /etc/opt/emService.yaml
)"));

    EXPECT_EQ(LOG_INFO, LevelOf("Stavik: /etc/opt/emService.yaml will not enable as not configured in cmdline"));
    EXPECT_LE(0, IndexOf("Start baseApp success appName=plain"));
    EXPECT_EQ(-1, IndexOf("appName=optional"));
    EXPECT_EQ(1u, BaseCount());
    EXPECT_EQ(LOG_DEBUG, LevelOf("STAVIK : EnableWatchDog flag=1"));
}

TEST_F(BaseStart, EmptyManifestEndsAtOnceAndBrokenOnesEndBeforeAnyStart)
{
    daemon_->InitBaseApplication(Manifest("apps: []\n"));
    EXPECT_TRUE(LogCapture::Contains("InitBaseApplication end"));
    EXPECT_EQ(LOG_DEBUG, LevelOf("STAVIK : EnableWatchDog flag=1"));

    LogCapture::Begin();
    daemon_->InitBaseApplication(sandbox_.Path("/etc/missing.yaml"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : ParseYamlFile failed, Stavik return"));
    EXPECT_FALSE(LogCapture::Contains("InitBaseApplication end"));

    LogCapture::Begin();
    daemon_->InitBaseApplication(Manifest("apps:\n  - bin_path: /bin/true\n"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : ParseYamlFile : appName is NULL"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : ParseYamlFile failed, Stavik return"));
    EXPECT_EQ(0u, BaseCount());
}

TEST_F(BaseStart, FeatureOnTheCommandLineEnablesItsEntryOrIsReportedUnclaimed)
{
    std::map<std::string, uint8_t>& features = BootContext::Instance().enableFeatures_;
    features["em"] = 0;
    std::vector<ApplicationManifest> manifests;
    ASSERT_TRUE(daemon_->ParseYamlFile(Manifest("apps:\n  - name: plain\n    cfg_path: /etc/plain.yaml\n"), manifests));
    EXPECT_EQ(LOG_ERR, LevelOf("em need enable, but not rightly configured"));

    LogCapture::Begin();
    manifests.clear();
    ASSERT_TRUE(daemon_->ParseYamlFile(Manifest("apps:\n  - name: em\n    cfg_path: /etc/em/emService.yaml\n"),
                                       manifests));
    EXPECT_EQ(1, features["em"]);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
