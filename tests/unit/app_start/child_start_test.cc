// What a started general child does and sees before it becomes the
// application: scheduling, environment, and the text it sends when a step
// fails; the parent's checks before a fork: shell tokens in the arguments and
// the execute right of the configured uid.
#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/child_setup.h"
#include "app/child_text.h"
#include "app/home_env.h"
#include "app/start_check.h"
#include "core/log.h"
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

TEST(StartCheck, ShellTokensInArgumentsAndExecuteRightsByTheConfiguredUid)
{
    constexpr gid_t FOREIGN_GID = 4242; // no user is a member
    const uint32_t user = getpwuid(1000) != nullptr ? 1000 : 65534;
    ::Stavik::Test::Sandbox sandbox;
    // Shell tokens in the path are no argument and don't refuse.
    const std::string probe = sandbox.Path("/probe&$(x)|y;z");
    const std::string cfg = "STAVIK : Start App=app failed, cfg uid=" + std::to_string(user) + ", but binPath=" + probe;
    const std::string notMember = cfg + " uid=0, gid=" + std::to_string(FOREIGN_GID) + " not have x permission !!";
    struct Case {
        mode_t mode;
        uid_t owner;
        gid_t group;
        uint32_t cfgUid;
        std::string argument;
        std::string line; // the one error line, "" when the check passes silently
    };
    std::vector<Case> cases = {
        {0755, 0, 0, user, "/tmp/a-b_c.d", ""}, // group 0 counts as a group of every user
        {0755, 0, FOREIGN_GID, user, "", notMember},
        {0701, 0, 0, user, "", cfg + " gid=0 not have x permission !!"},
        {0701, 0, FOREIGN_GID, user, "", notMember},
        {0700, 0, 0, 0, "", ""},
        {0600, 0, 0, 0, "",
         "STAVIK : Start App=app failed, cfg uid is root, but binPath=" + probe + " uid=0 not have x permission !!"},
        {0700, user, FOREIGN_GID, user, "", ""},
        {0670, user, 0, user, "", cfg + " uid=" + std::to_string(user) + " not have x permission !!"},
    };
    for (const char* token : {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$"}) {
        cases.push_back({0755, 0, 0, 0, std::string("a") + token + "b",
                         "STAVIK : CheckChildProParas App=app arguments include illegal str"});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << std::oct << c.mode << std::dec << " " << c.owner << ":" << c.group
                                          << " " << c.argument);
        ::Stavik::Test::CopyProbe(probe, c.mode, c.owner, c.group);
        LogCapture::Begin();
        EXPECT_EQ(c.line.empty(), CheckChildProParas("app", probe, c.cfgUid, {"--ok", c.argument}));
        std::vector<CapturedLine> lines = LogCapture::Lines();
        LogCapture::End();
        ASSERT_EQ(c.line.empty() ? 0u : 1u, lines.size());
        if (!c.line.empty()) {
            EXPECT_EQ(LOG_ERR, lines[0].level);
            EXPECT_EQ(c.line, lines[0].text);
        }
    }
    EXPECT_FALSE(IsUserInGroup(54321, 0)) << "no passwd entry, no group";
}

// Each fragment of a failed identity switch, told from a forked child, since
// the switch changes the identity of the process it runs in.
TEST(ChildIdentity, EachFailedStepIsToldAndEndsTheSwitch)
{
    const uint32_t invalid = static_cast<uint32_t>(-1);
    struct Case {
        uint32_t uid, gid;
        bool hasUser;
        errno_t wipeResult;
        bool switched;
        std::string told;
    };
    const Case cases[] = {
        {0, 0, false, EOK, false, "getpwuid is null;"},
        {0, 0, true, 1, true, "SetGroups memset_s failed error=1;"},
        {0, invalid, true, EOK, false, "SetAppGid=4294967295 failed error=22;"},
        {invalid, 0, true, EOK, false, "SetAppUid=4294967295,failed error=22;"},
    };
    for (const Case& c : cases) {
        Support::ChildMsgPipe pipe;
        UserGroups groups;
        groups.hasUser = c.hasUser;
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
}

} // namespace
} // namespace App
} // namespace Stavik
