// The base start over three dependency levels of reporting services, each a
// real stavik-owner process that reports its state as soon as its pipe is up.
#include <gtest/gtest.h>

#include <regex>

#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const std::string RUNNING_REQUEST = R"({"type":"state","state":"RUNNING"})";
const std::string TERMINATING_REQUEST = R"({"type":"state","state":"TERMINATING"})";
const std::string STAMP = R"(\[[0-9]+\.[0-9]{6}s\]\[BOOT_TRACE\]\[SK\] )";

AppEntry Service(const std::string& name, const std::vector<std::string>& depends,
                 const std::string& request = RUNNING_REQUEST)
{
    AppEntry entry = ToolOwner(name, {request});
    entry.depends = depends;
    return entry;
}

// Index of the line whose text is the boot stamp followed by `rest`, with its level; -1 when absent.
long StampedLine(const DaemonProcess& daemon, const std::string& rest, int level)
{
    const std::regex form("^STAVIK\\[[0-9]+\\] <" + std::to_string(level) + "> " + STAMP +
                          RegexQuoted(rest) + "$");
    std::vector<std::string> lines = daemon.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (std::regex_match(lines[i], form)) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

long ReportedRunning(const DaemonProcess& daemon, const std::string& name)
{
    return StampedLine(daemon, "InitBaseApp:" + name + " success, report RUNNING!", 6);
}

long StartOf(const DaemonProcess& daemon, const std::string& name)
{
    return daemon.IndexOf("Start baseApp success appName=" + name + ",");
}

TEST(BaseStartOverLevels, EachLevelWaitsForItsDependenciesAndATerminatingServiceFailsItsDependants)
{
    Sandbox sandbox;
    // Listed out of order on purpose: the file order must not matter.
    std::vector<AppEntry> services = {
        Service("gamma", {"beta", "bravo"}), Service("orphan", {"quitter"}), Service("bravo", {"alpha"}),
        Service("quitter", {}, TERMINATING_REQUEST), Service("beta", {"alpha", "Alpha"}),
        Service("alpha", {}), Service("Alpha", {}),
    };
    std::string manifest = sandbox.WriteFile("/etc/base.yaml", AppsText(services));
    std::unique_ptr<DaemonProcess> daemon = QuietDaemon(sandbox, {manifest});
    ASSERT_NE("", daemon->WaitForLine(" InitBaseApplication end", OWNER_WAIT_MS)) << daemon->Log();

    std::vector<std::string> started;
    for (const BaseAppStart& start : BaseAppStarts(*daemon)) {
        started.push_back(start.name);
    }
    EXPECT_EQ((std::vector<std::string>{"Alpha", "alpha", "quitter", "beta", "bravo", "gamma"}), started);

    // Strictly one after another: each start waits for the previous service's report.
    for (size_t i = 0; i + 1 < started.size(); ++i) {
        long reported = started[i] == "quitter" ? StampedLine(*daemon, "InitBaseApp:quitter report TERMINATING!", 4)
                                                : ReportedRunning(*daemon, started[i]);
        EXPECT_LE(0, reported) << started[i] << "\n" << daemon->Log();
        EXPECT_LT(reported, StartOf(*daemon, started[i + 1])) << started[i + 1];
    }
    for (const AppEntry& service : services) {
        for (const std::string& dependency : service.depends) {
            EXPECT_EQ(1u, CountExact(*daemon, "STAVIK : " + service.name + "'s dependcy " + dependency +
                                                  (dependency == "quitter" ? " hasn't been started"
                                                                           : " has been started")))
                << service.name << " on " << dependency;
        }
    }

    // The service that reported TERMINATING counts as started; its dependant doesn't start.
    EXPECT_EQ(-1, ReportedRunning(*daemon, "quitter"));
    EXPECT_EQ(-1, StartOf(*daemon, "orphan"));
    EXPECT_NE(-1, daemon->IndexOf(", start baseApp=orphan failed"));
    EXPECT_EQ(1u, daemon->CountLines(", start baseApp="));
    EXPECT_TRUE(WaitForExactLine(*daemon, "STAVIK : EnableWatchDog flag=0", OWNER_WAIT_MS));
}

} // namespace
} // namespace Test
} // namespace Stavik
