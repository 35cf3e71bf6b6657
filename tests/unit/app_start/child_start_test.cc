// What a started general child does and sees before it becomes the
// application: identity, nice and scheduling, environment, and the text it
// sends when a step fails.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/child_setup.h"
#include "app/child_text.h"
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

ManifestData Manifest(const std::string& name, EnvMap env = {})
{
    ManifestData data;
    data.appName = name;
    data.env = std::move(env);
    return data;
}

// The test's own environment, with PROC_NAME and the expected variables laid over it.
EnvMap Expected(const EnvMap& added)
{
    EnvMap expected;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        expected[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
    }
    expected["PROC_NAME"] = "envprobe";
    for (const auto& entry : added) {
        expected[entry.first] = entry.second;
    }
    return expected;
}

class ChildStartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Children under other users write their record in here.
        Support::MakeDirs(sandbox_.Path("/out"));
        chmod(sandbox_.Path("/out").c_str(), 0777);
        Support::CopyProbe(probe_, 0755, 0, 0);
        DaemonHomeEnv() = HOME;
    }
    void TearDown() override
    {
        DaemonHomeEnv().clear();
        unsetenv("TUBIX_DIR");
    }

    // Starts the record on the probe, which writes its record and exits 0,
    // checks what the child told and returns its record. No control CPU list
    // is read here, so the binding always says so.
    EnvMap Run(const ManifestData& data, const std::string& told, const std::string& owner = "ownerX")
    {
        GeneralAppInfo app(data.appName, ApplicationManifest(data), owner);
        std::string out = sandbox_.Path("/out/record" + std::to_string(++runs_));
        app.execPath_ = probe_;
        app.arguments_ = {"--out", out, "--exit", "0"};
        EXPECT_TRUE(app.StartProcess());
        EXPECT_EQ(Support::ReapChild(app.pid_), W_EXITCODE(0, 0));
        EXPECT_EQ(pipe_.ReadAll(), "app=" + data.appName + ",pid=" + std::to_string(app.pid_) + "," + told +
                                       "default ctrl cpu is null;");
        return Support::ReadProbeRecord(out);
    }

    // The environment of a record; the endpoint's number is whatever was free
    // in the child, where it listens is fixed.
    EnvMap EnvOf(EnvMap record)
    {
        EXPECT_EQ(record["listen_path"], sandbox_.TubixDir() + "/envprobe");
        EnvMap env;
        for (const auto& entry : record) {
            if (entry.first.compare(0, 4, "env.") == 0 && entry.first != "env.TUBIX_LISTEN_FD") {
                env[entry.first.substr(4)] = entry.second;
            }
        }
        return env;
    }

    Support::Sandbox sandbox_;
    Support::ChildMsgPipe pipe_;
    std::string probe_ = sandbox_.Path("/probe_child");
    int runs_ = 0;
};

// Identity and nice are checked through the real daemon in tests/e2e/base_start.
TEST_F(ChildStartTest, ChildRunsInTheSchedulingClassItAsked)
{
    ManifestData data = Manifest("sched");
    data.setRtPrio = "10";
    data.setRtType = "SCHED_RR";
    // Root without CAP_SYS_RESOURCE may not raise the hard real-time limit;
    // the child tells so and runs on, in the class it asked for.
    auto record = Run(data, "prlimit failed,errno=1;");
    struct rlimit ownLimit {};
    getrlimit(RLIMIT_RTPRIO, &ownLimit);
    EXPECT_EQ(record["rtprio"], std::to_string(ownLimit.rlim_cur));
    EXPECT_EQ(record["policy"], std::to_string(SCHED_RR));

    // The naming service refuses a process without a name; the binary runs all the same.
    EXPECT_FALSE(Run(Manifest(""), "ZULInitProc failed, errno=22;").empty());
}

// The base variant, supplementary groups, HOME from the manifest, the other
// rounding edges and LD_PRELOAD are checked through the real daemon in
// tests/e2e/base_start.
TEST_F(ChildStartTest, GeneralChildGetsPlaneHomeOwnerAndClampedHeartBeat)
{
    setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
    // Shell text in the environment is no reason to refuse a start. Data-plane
    // children take part in sharepool groups; none is declared here.
    ManifestData data = Manifest("envprobe", {{"A", "a && b; $(c)"}});
    data.heartBeatSwitch = true;
    data.heartBeatInterval = 50;
    data.heartBeatCount = 1;
    EXPECT_EQ(EnvOf(Run(data, "CheckSharepoolGroupCfg failed groupName=DEFAULT_MEM_GROUP is not legal;", "brellan")),
              Expected({{"SHAREGROUP_PRECONFIG", "1"}, {"SHAREPOOL_GROUP_NAME", ""}, {"PROC_PLANE", "PLANE_DATA"},
                        {"HOME", HOME}, {"A", "a && b; $(c)"}, {"OWNER_NAME", "brellan"}, {"GRP_HB", "1"},
                        {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "3"}}));
}

// Each fragment of a failed identity switch, told from a forked child, since
// the switch changes the identity of the process it runs in.
TEST(ChildIdentity, EachFailedStepIsToldAndEndsTheSwitch)
{
    const uint32_t invalid = static_cast<uint32_t>(-1);
    struct Case {
        uint32_t uid;
        uint32_t gid;
        errno_t wipeResult;
        bool switched;
        std::string told;
    };
    const Case cases[] = {
        {0, 0, 1, true, "SetGroups memset_s failed error=1;"},
        {0, invalid, EOK, false, "SetAppGid=4294967295 failed error=22;"},
        {invalid, 0, EOK, false, "SetAppUid=4294967295,failed error=22;"},
    };
    for (const Case& c : cases) {
        Support::ChildMsgPipe pipe;
        UserGroups groups;
        groups.hasUser = true;
        groups.isListed = true;
        groups.wipeResult = c.wipeResult;
        ChildText text;
        text.Prepare("id", 0);
        pid_t pid = fork();
        if (pid == 0) {
            text.Begin(1);
            bool switched = SetAppIdentity(c.uid, c.gid, groups, text);
            text.Send(BootContext::Instance().childMsgPipe_[1]);
            _exit(switched ? 0 : 1);
        }
        EXPECT_EQ(Support::ReapChild(pid), W_EXITCODE(c.switched ? 0 : 1, 0)) << c.told;
        EXPECT_EQ(pipe.ReadAll(), "app=id,pid=1," + c.told);
    }
    // Exit codes of a failed exec tell an input/output error apart.
    EXPECT_EQ(ExecFailureExitCode(EIO), 125);
    EXPECT_EQ(ExecFailureExitCode(ENOENT), 1);
}

} // namespace
} // namespace App
} // namespace Stavik
