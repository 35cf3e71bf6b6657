// The checks in the parent before a fork: arguments and execute rights.
#include <pwd.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "app/start_check.h"
#include "core/log.h"
#include "tests/support/sandbox.h"
#include "tests/unit/app_start/child_probe.h"

namespace Stavik {
namespace App {
namespace {

namespace Support = Stavik::Test;

// A group the test user is not a member of.
constexpr gid_t FOREIGN_GID = 4242;

class StartCheckTest : public ::testing::Test {
protected:
    void SetUp() override { Support::CopyProbe(probe_, 0755, 0, 0); }
    void TearDown() override { LogCapture::End(); }

    // Runs the check and returns its one error line, or "" when it passed silently.
    std::string Refusal(const std::string& path, uint32_t uid, const std::vector<std::string>& arguments)
    {
        LogCapture::Begin();
        bool passed = CheckChildProParas("app", path, uid, arguments);
        auto lines = LogCapture::Lines();
        if (passed) {
            return lines.empty() ? "" : "passed with a line";
        }
        return lines.size() == 1 && lines[0].level == LOG_ERR ? lines[0].text : "refused without one error line";
    }

    Support::Sandbox sandbox_;
    std::string probe_ = sandbox_.Path("/probe_child");
};

TEST_F(StartCheckTest, ShellTokenInAnArgumentRefusesButNotInThePath)
{
    for (const char* token : {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$"}) {
        EXPECT_EQ(Refusal(probe_, 0, {"--ok", std::string("a") + token + "b"}),
                  "STAVIK : CheckChildProParas App=app arguments include illegal str")
            << token;
    }
    std::string oddPath = sandbox_.Path("/probe&$(x)|y;z");
    Support::CopyProbe(oddPath, 0755, 0, 0);
    EXPECT_EQ(Refusal(oddPath, 0, {"--out", "/tmp/a-b_c.d"}), "");
    std::string missing = sandbox_.Path("/missing");
    EXPECT_EQ(Refusal(missing, 0, {}), "STAVIK : Start App=app failed, binPath=" + missing + " is not existed !!!");
}

TEST_F(StartCheckTest, ExecuteRightFollowsTheConfiguredUid)
{
    const uint32_t user = getpwuid(1000) != nullptr ? 1000 : 65534;
    const std::string cfg = "STAVIK : Start App=app failed, cfg uid=" + std::to_string(user) + ", but binPath=" + probe_;
    const std::string notMember = cfg + " uid=0, gid=" + std::to_string(FOREIGN_GID) + " not have x permission !!";
    struct Case {
        mode_t mode;
        uid_t owner;
        gid_t group;
        uint32_t cfgUid;
        std::string line;
    };
    const Case cases[] = {
        {0755, 0, 0, user, ""}, // group 0 counts as a group of every user
        {0755, 0, FOREIGN_GID, user, notMember},
        {0701, 0, 0, user, cfg + " gid=0 not have x permission !!"},
        {0701, 0, FOREIGN_GID, user, notMember},
        {0700, 0, 0, 0, ""},
        {0600, 0, 0, 0,
         "STAVIK : Start App=app failed, cfg uid is root, but binPath=" + probe_ + " uid=0 not have x permission !!"},
        {0700, user, FOREIGN_GID, user, ""},
        {0670, user, 0, user, cfg + " uid=" + std::to_string(user) + " not have x permission !!"},
    };
    for (const Case& c : cases) {
        chown(probe_.c_str(), c.owner, c.group);
        chmod(probe_.c_str(), c.mode);
        EXPECT_EQ(Refusal(probe_, c.cfgUid, {}), c.line) << std::oct << c.mode << " " << c.owner << ":" << c.group;
    }
    EXPECT_FALSE(IsUserInGroup(54321, 0)) << "no passwd entry, no group";
}

} // namespace
} // namespace App
} // namespace Stavik
