// The parent's checks before a fork: shell tokens in the arguments and the
// execute right of the configured uid.
#include <pwd.h>

#include <gtest/gtest.h>

#include "app/start_check.h"
#include "core/log.h"
#include "tests/support/sandbox.h"
#include "tests/unit/app_start/child_probe.h"

namespace Stavik {
namespace App {
namespace {

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

} // namespace
} // namespace App
} // namespace Stavik
