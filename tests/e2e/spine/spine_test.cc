// The daemon binary's entry and boot phases, run for real in a sandbox root.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <regex>

#include "tests/support/daemon_process.h"

namespace Stavik {
namespace Test {
namespace {

const std::string EMPTY_MANIFEST = "apps: []\n";

// A kernel record: level in angle brackets, one blank, ident and pid, one blank.
bool AllKmsgRecordsWellFormed(const std::string& kmsg, pid_t pid, size_t& records)
{
    const std::string head = "STAVIK[" + std::to_string(pid) + "] ";
    std::regex record("<[0-9]> " + std::regex_replace(head, std::regex(R"([\[\]])"), R"(\$&)"));
    records = std::distance(std::sregex_iterator(kmsg.begin(), kmsg.end(), record), std::sregex_iterator());
    return records > 0 && std::regex_search(kmsg.substr(0, 16 + head.size()), record,
                                            std::regex_constants::match_continuous);
}

TEST(DaemonEntry, BadArgumentsExitWith255BeforeAnyThreadAndAnOrdinaryStartLogsToSyslogOnly)
{
    Sandbox sandbox;
    DaemonProcess noArgument(sandbox, {});
    int status = noArgument.WaitExit();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(255, WEXITSTATUS(status));
    EXPECT_NE("", noArgument.WaitForLine(
        "Stavik: intput argc num is < 2, please input baseService yaml config path", 1000));

    DaemonProcess missingPath(sandbox, {sandbox.Path("/no/such/manifest.yaml"), "true"});
    status = missingPath.WaitExit();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(255, WEXITSTATUS(status));
    EXPECT_NE("", missingPath.WaitForLine(
        "Stavik: StandardizationPath failed, path: " + sandbox.Path("/no/such/manifest.yaml"), 1000));
    EXPECT_EQ(-1, missingPath.IndexOf("init success"));
    EXPECT_EQ(0u, sandbox.ReadFile("/dev/kmsg").find("<3> STAVIK[" + std::to_string(missingPath.Pid()) +
                                                      "] Stavik: StandardizationPath failed"))
        << "with \"true\" given, even this early complaint is a kernel record";

    // Any other second argument is an ordinary start: no wait, no kernel records.
    Sandbox plain;
    DaemonProcess daemon(plain, {plain.WriteFile("/etc/base.yaml", EMPTY_MANIFEST), "TRUE"});
    ASSERT_NE("", daemon.WaitForLine("ContinueStavikInit success", 3000));
    EXPECT_LT(daemon.IndexOf("is not quickstart, so not wait for continue signal"),
              daemon.IndexOf("ContinueStavikInit success"));
    EXPECT_FALSE(plain.Exists("/dev/kmsg"));
    EXPECT_EQ(0u, daemon.CountLines("kmsg "));
}

TEST(DaemonEntry, QuickStartLogsToKmsgUntilContinueSignal)
{
    Sandbox sandbox;
    std::string manifest = sandbox.WriteFile("/etc/base.yaml", EMPTY_MANIFEST);
    DaemonProcess daemon(sandbox, {manifest, "true"});
    ASSERT_TRUE(WaitUntil([&] { return sandbox.ReadFile("/dev/kmsg").find("init success") != std::string::npos; }));
    std::string kmsg = sandbox.ReadFile("/dev/kmsg");
    EXPECT_NE(std::string::npos, kmsg.find("<6> STAVIK[" + std::to_string(daemon.Pid()) +
                                           "] Stavik: main begin: baseServiceCfgPath: " + manifest));
    EXPECT_NE(std::string::npos, kmsg.find("[BOOT_TRACE][SK], SK main begin"));
    EXPECT_EQ(std::string::npos, kmsg.find('\n')) << "no newline is added to a record";

    daemon.Signal(SIGCONT);
    std::string continued = daemon.WaitForLine("ContinueStavikInit success");
    ASSERT_NE("", continued);
    EXPECT_EQ(0u, continued.rfind("STAVIK[", 0)) << "after the continue point lines go to syslog";
    kmsg = sandbox.ReadFile("/dev/kmsg");
    size_t records = 0;
    EXPECT_TRUE(AllKmsgRecordsWellFormed(kmsg, daemon.Pid(), records));
    std::smatch stamp;
    ASSERT_TRUE(std::regex_search(kmsg, stamp, std::regex(
        R"(wait success for continue startup, catch continue signal time=\[[0-9]+\.[0-9]{6}s\]\[BOOT_TRACE\]\[SK\]$)")));
    EXPECT_EQ(std::string::npos, kmsg.find("ContinueStavikInit"));
}

} // namespace
} // namespace Test
} // namespace Stavik
