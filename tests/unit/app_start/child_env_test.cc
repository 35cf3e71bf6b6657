// The environment a started general child sees.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/home_env.h"
#include "tests/support/sandbox.h"
#include "tests/unit/app_start/child_probe.h"

extern char** environ;

namespace Stavik {
namespace App {
namespace {

namespace Support = Stavik::Test;
using EnvMap = std::map<std::string, std::string>;

const char HOME[] = "/home/probe";

ManifestData Manifest(bool heartBeat, uint32_t interval, uint32_t count, EnvMap env = {})
{
    ManifestData data;
    data.appName = "envprobe";
    data.heartBeatSwitch = heartBeat;
    data.heartBeatInterval = interval;
    data.heartBeatCount = count;
    data.env = std::move(env);
    return data;
}

// The test's own environment, with PROC_NAME and the expected variables laid over it.
EnvMap Expected(const EnvMap& added)
{
    EnvMap expected;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        expected["env." + text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    }
    expected["env.PROC_NAME"] = "envprobe";
    for (const auto& entry : added) {
        expected["env." + entry.first] = entry.second;
    }
    return expected;
}

class ChildEnvTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        DaemonHomeEnv() = HOME;
        setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
    }
    void TearDown() override
    {
        DaemonHomeEnv().clear();
        unsetenv("TUBIX_DIR");
    }

    // Starts the record on the probe, which writes its record and exits 0,
    // and returns the environment the child saw.
    template <class Record>
    EnvMap EnvOfChild(Record&& app, const std::string& envFragments = "")
    {
        std::string out = sandbox_.Path("/record" + std::to_string(++runs_));
        app.execPath_ = Support::BuiltProgram("tests/probe_child");
        app.arguments_ = {"--out", out, "--exit", "0"};
        EXPECT_TRUE(app.StartProcess());
        EXPECT_EQ(Support::ReapChild(app.pid_), W_EXITCODE(0, 0));
        // No control CPU list is read here, so the binding is all the child tells.
        EXPECT_EQ(pipe_.ReadAll(), "app=" + app.appName_ + ",pid=" + std::to_string(app.pid_) + "," + envFragments +
                                       "default ctrl cpu is null;");
        EnvMap env;
        std::map<std::string, std::string> record = Support::ReadProbeRecord(out);
        for (const auto& entry : record) {
            if (entry.first.compare(0, 4, "env.") == 0) {
                env.insert(entry);
            }
        }
        // The endpoint's number is whatever was free in the child; where it listens is fixed.
        EXPECT_EQ(record["listen_path"], sandbox_.TubixDir() + "/envprobe");
        env.erase("env.TUBIX_LISTEN_FD");
        return env;
    }

    GeneralAppInfo General(const ManifestData& data, const std::string& owner = "ownerX")
    {
        return GeneralAppInfo(data.appName, ApplicationManifest(data), owner);
    }

    Support::Sandbox sandbox_;
    Support::ChildMsgPipe pipe_;
    int runs_ = 0;
};

// The base variant, the other rounding edges and LD_PRELOAD are checked
// through the real daemon in tests/e2e/base_start.
TEST_F(ChildEnvTest, GeneralChildGetsPlaneHomeOwnerAndClampedHeartBeat)
{
    // Shell text in the environment is no reason to refuse a start. Data-plane
    // children take part in sharepool groups; none is declared here.
    EXPECT_EQ(EnvOfChild(General(Manifest(true, 50, 1, {{"A", "a && b; $(c)"}}), "brellan"),
                         "CheckSharepoolGroupCfg failed groupName=DEFAULT_MEM_GROUP is not legal;"),
              Expected({{"SHAREGROUP_PRECONFIG", "1"}, {"SHAREPOOL_GROUP_NAME", ""}, {"PROC_PLANE", "PLANE_DATA"},
                        {"HOME", HOME}, {"A", "a && b; $(c)"}, {"OWNER_NAME", "brellan"}, {"GRP_HB", "1"},
                        {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "3"}}));
    // The manifest may override HOME.
    EXPECT_EQ(EnvOfChild(General(Manifest(true, 150, 1001, {{"HOME", "/manifest"}}))),
              Expected({{"PROC_PLANE", "PLANE_MANAGE"}, {"HOME", "/manifest"}, {"OWNER_NAME", "ownerX"},
                        {"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "1000"}}));
    EXPECT_EQ(EnvOfChild(General(Manifest(false, 0, 0, {{"LD_PRELOAD", "libasan.so.5"}}))),
              Expected({{"PROC_PLANE", "PLANE_MANAGE"}, {"HOME", HOME}, {"OWNER_NAME", "ownerX"},
                        {"LD_PRELOAD", "libasan.so.4:libzul.so.1"}}));
}

} // namespace
} // namespace App
} // namespace Stavik
