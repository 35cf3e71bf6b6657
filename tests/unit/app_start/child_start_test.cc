// What a started child does before it becomes the application: identity,
// nice and scheduling, and the text it sends when something fails.
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "app/app_info.h"
#include "app/child_setup.h"
#include "tests/support/sandbox.h"
#include "tests/unit/app_start/child_probe.h"

namespace Stavik {
namespace App {
namespace {

namespace Support = Stavik::Test;

constexpr uint32_t NOBODY_UID = 65534;
constexpr uint32_t USERS_GID = 100;
// No control CPU list is read here, so every child's binding says so.
const std::string NO_CTRL_CPUS = "default ctrl cpu is null;";

std::string GroupsOfNobody()
{
    struct passwd* nobody = getpwuid(NOBODY_UID);
    gid_t groups[128];
    int count = 128;
    getgrouplist(nobody->pw_name, nobody->pw_gid, groups, &count);
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ",") + std::to_string(groups[i]);
    }
    return text;
}

class ChildStartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Children under other users write their record in here.
        Support::MakeDirs(sandbox_.Path("/out"));
        chmod(sandbox_.Path("/out").c_str(), 0777);
        Support::CopyProbe(probe_, 0755, 0, 0);
    }

    GeneralAppInfo App(const std::string& name, ManifestData data, const std::string& binPath = "")
    {
        data.binPath = binPath.empty() ? probe_ : binPath;
        data.arguments = {"--out", out_, "--exit", "0"};
        return GeneralAppInfo(name, ApplicationManifest(data), "ownerX");
    }

    std::string Head(const GeneralAppInfo& app) const
    {
        return "app=" + app.appName_ + ",pid=" + std::to_string(app.pid_) + ",";
    }

    Support::Sandbox sandbox_;
    Support::ChildMsgPipe pipe_;
    std::string probe_ = sandbox_.Path("/probe_child");
    std::string out_ = sandbox_.Path("/out/record");
};

TEST_F(ChildStartTest, ChildRunsWithConfiguredIdentityNiceAndScheduling)
{
    ManifestData data;
    data.uid = NOBODY_UID;
    data.gid = USERS_GID;
    data.nice = 5;
    data.setRtPrio = "10";
    data.setRtType = "SCHED_RR";
    GeneralAppInfo app = App("identity", data);
    errno = 0;
    int ownNice = getpriority(PRIO_PROCESS, 0);

    ASSERT_TRUE(app.StartProcess());
    EXPECT_EQ(Support::ReapChild(app.pid_), W_EXITCODE(0, 0));
    auto record = Support::ReadProbeRecord(out_);
    EXPECT_EQ(record["uid"], std::to_string(NOBODY_UID));
    EXPECT_EQ(record["gid"], std::to_string(USERS_GID));
    EXPECT_EQ(record["groups"], GroupsOfNobody());
    // The kernel caps niceness at 19, as when the tests themselves run niced.
    EXPECT_EQ(record["nice"], std::to_string(std::min(ownNice + 5, 19)));
    EXPECT_EQ(record["argv"], probe_ + " --out " + out_ + " --exit 0");

    // A host without the rights for real-time limits or classes refuses them;
    // the child tells so and runs on.
    const std::string limitRefused = "prlimit failed,errno=1;";
    const std::string classRefused = "sched_setscheduler failed errno=1,type=4,priority=10;";
    std::string text = pipe_.ReadAll();
    bool limitGiven = text.find(limitRefused) == std::string::npos;
    bool classGiven = text.find(classRefused) == std::string::npos;
    std::string told = (limitGiven ? "" : limitRefused) + (classGiven ? "" : classRefused);
    EXPECT_EQ(text, Head(app) + told + NO_CTRL_CPUS);
    struct rlimit ownLimit {};
    getrlimit(RLIMIT_RTPRIO, &ownLimit);
    EXPECT_EQ(record["rtprio"], limitGiven ? "99" : std::to_string(ownLimit.rlim_cur));
    EXPECT_EQ(record["policy"], std::to_string(classGiven ? SCHED_RR : SCHED_OTHER));
}

// A missing identity and the execv failure text are checked through the real
// daemon in tests/e2e/base_start.
TEST(ChildStart, ExecFailureCodeTellsInputOutputErrorsApart)
{
    EXPECT_EQ(ExecFailureExitCode(EIO), 125);
    EXPECT_EQ(ExecFailureExitCode(ENOENT), 1);
}

TEST_F(ChildStartTest, FailedNamingServiceInitIsToldAndTheBinaryRuns)
{
    // The naming service refuses a process without a name.
    GeneralAppInfo app = App("", ManifestData{});

    ASSERT_TRUE(app.StartProcess());
    EXPECT_EQ(Support::ReapChild(app.pid_), W_EXITCODE(0, 0));
    EXPECT_EQ(pipe_.ReadAll(), Head(app) + "ZULInitProc failed, errno=22;" + NO_CTRL_CPUS);
    EXPECT_EQ(access(out_.c_str(), F_OK), 0);
}

} // namespace
} // namespace App
} // namespace Stavik
