// What a started general child does and sees before it becomes the
// application: scheduling, environment, and the text it sends when a step
// fails.
#include <sys/resource.h>
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

namespace Stavik {
namespace App {
namespace {

namespace Support = Stavik::Test;
using EnvMap = std::map<std::string, std::string>;

const char HOME[] = "/home/probe";

ManifestData Manifest(const std::string& name)
{
    ManifestData data;
    data.appName = name;
    return data;
}

class ChildStartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Support::MakeDirs(sandbox_.Path("/out"));
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

    Support::Sandbox sandbox_;
    Support::ChildMsgPipe pipe_;
    std::string probe_ = sandbox_.Path("/probe_child");
    int runs_ = 0;
};

// Identity, nice, the base variant, supplementary groups, the environment's
// other variables and LD_PRELOAD are checked through the real daemon in
// tests/e2e/base_start.
TEST_F(ChildStartTest, GeneralChildRunsInItsSchedulingClassWithPlaneHomeAndOwner)
{
    setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
    ManifestData data = Manifest("envprobe");
    data.setRtPrio = "10";
    data.setRtType = "SCHED_RR";
    // Data-plane children take part in sharepool groups; none is declared
    // here. Root without CAP_SYS_RESOURCE may not raise the hard real-time
    // limit; the child tells so and runs on, in the class it asked for.
    EnvMap record = Run(data, "prlimit failed,errno=1;CheckSharepoolGroupCfg failed groupName=DEFAULT_MEM_GROUP is "
                              "not legal;", "brellan");
    struct rlimit ownLimit {};
    getrlimit(RLIMIT_RTPRIO, &ownLimit);
    const EnvMap expected = {{"rtprio", std::to_string(ownLimit.rlim_cur)}, {"policy", std::to_string(SCHED_RR)},
                             {"listen_path", sandbox_.TubixDir() + "/envprobe"}, {"env.PROC_NAME", "envprobe"},
                             {"env.PROC_PLANE", "PLANE_DATA"}, {"env.OWNER_NAME", "brellan"}, {"env.HOME", HOME},
                             {"env.SHAREGROUP_PRECONFIG", "1"}, {"env.SHAREPOOL_GROUP_NAME", ""}};
    for (const auto& [key, value] : expected) {
        EXPECT_EQ(record[key], value) << key;
    }
    EXPECT_EQ(Run(Manifest("manage"), "")["env.PROC_PLANE"], "PLANE_MANAGE");

    // The naming service refuses a process without a name; the binary runs all the same.
    EXPECT_FALSE(Run(Manifest(""), "ZULInitProc failed, errno=22;").empty());
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
