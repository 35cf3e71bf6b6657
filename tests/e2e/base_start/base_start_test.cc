// The start of the base services by the real daemon in a sandbox root; the
// services are probe children that record what they were given.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const uid_t NOBODY = 65534;
// An identity without a passwd entry: a child can't gather its groups.
const uid_t NO_SUCH_USER = 4242;
const std::string SANDBOX_HOME = "/home/tester";
const std::string PASSWD = "root:x:0:0:root:/root:/bin/sh\ntester:x:1000:1000:Tester:" + SANDBOX_HOME + ":/bin/sh\n";
const int BOOT_TIMEOUT_MS = 30000;
const std::vector<std::string> HEALTHY = {"Svc_Z", "svc-a", "svc10", "svc9", "svc_a", "svc_z"};

std::set<gid_t> GroupsOf(uid_t uid)
{
    struct passwd* user = getpwuid(uid);
    gid_t groups[128];
    int count = 128;
    if (user == nullptr || getgrouplist(user->pw_name, user->pw_gid, groups, &count) < 0) {
        return {};
    }
    return std::set<gid_t>(groups, groups + count);
}

std::set<gid_t> ParseGroups(const std::string& text)
{
    std::set<gid_t> groups;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        groups.insert(static_cast<gid_t>(std::stoul(item)));
    }
    return groups;
}

AppEntry Probe(const Sandbox& sandbox, const std::string& name)
{
    return ProbeApp(name, {"--out", sandbox.Path("/out/" + name + ".rec")});
}

// One daemon run over a manifest of healthy services and two whose children
// fail after the fork, shared by the tests of this suite.
class BaseStartRun : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sandbox_ = new Sandbox();
        sandbox_->WriteFile("/etc/passwd", PASSWD);
        services_ = Services(*sandbox_);
        daemon_ = new DaemonProcess(*sandbox_, {sandbox_->WriteFile("/etc/base_services.yaml", AppsText(services_))});
        bootEnded_ = daemon_->WaitForLine(" InitBaseApplication end", BOOT_TIMEOUT_MS) != "";
        daemonEnv_ = ProcessEnviron(daemon_->Pid());
        daemonNice_ = getpriority(PRIO_PROCESS, static_cast<id_t>(daemon_->Pid()));
    }

    static void TearDownTestSuite()
    {
        delete daemon_;
        delete sandbox_;
    }

    void SetUp() override
    {
        ASSERT_EQ(nullptr, getpwuid(NO_SUCH_USER)) << "the suite needs a uid without a passwd entry";
        ASSERT_TRUE(bootEnded_) << daemon_->Log();
    }

    // Listed out of name order on purpose: the start order must not follow the file.
    static std::vector<AppEntry> Services(const Sandbox& box)
    {
        AppEntry idFails = ProbeApp("svc_id", {"--out", box.Path("/out/svc_id.rec")});
        // Its own copy of the probe, which that identity may run.
        idFails.binPath = box.CopyProgram(BuiltProgram("tests/probe_child"), "/bin/probe_of_4242");
        EXPECT_EQ(0, chown(idFails.binPath.c_str(), NO_SUCH_USER, NO_SUCH_USER));
        idFails.uid = NO_SUCH_USER;
        idFails.gid = NO_SUCH_USER;
        AppEntry execFails = ProbeApp("svc_b");
        execFails.binPath = box.WriteFile("/bin/not_a_program", "this is no program\n", 0755);
        AppEntry missing = ProbeApp("svc_c");
        missing.binPath = box.Path("/bin/absent");
        // Refused, so that its dependant finds no record of it.
        AppEntry refused = ProbeApp("A_bad");
        refused.binPath = box.Path("/bin/absent");
        AppEntry firstDependant = Probe(box, "A_dep");
        firstDependant.depends = {"A_bad"};
        AppEntry root = Probe(box, "Svc_Z").With("nice", "7").With("heartbeat", "{enable: true, interval: 250, count: 1}");
        root.env = {{"A_KEY", "a&&b $(c)"}, {"LD_PRELOAD", "/opt/libasan.so.6"}};
        root.startupEntryPath = "/etc/entry/svc_z.yaml";
        AppEntry nobody = Probe(box, "svc-a").With("nice", "-3").With("heartbeat", "{enable: true, interval: 50, count: 1001}");
        nobody.uid = NOBODY;
        nobody.gid = NOBODY;
        nobody.env = {{"HOME", "/from/manifest"}};
        AppEntry rootOtherGroup = Probe(box, "svc10").With("heartbeat", "{enable: false, interval: 500, count: 5}");
        rootOtherGroup.gid = 1;
        rootOtherGroup.env = {{"LD_PRELOAD", "libfake_preload.so"}};
        AppEntry nobodyOtherGroup = Probe(box, "svc9").With("heartbeat", "{enable: true, interval: 70000, count: 0}");
        nobodyOtherGroup.uid = NOBODY;
        nobodyOtherGroup.gid = 1;
        // Its dependency announces its end before the boot goes on, so it is
        // never RUNNING when the dependant's turn comes, however slow the start.
        AppEntry ending = ToolOwner("svc_t", {R"({"type":"state","state":"TERMINATING"})"});
        AppEntry dependant = Probe(box, "after_t");
        dependant.depends = {"svc_t"};
        return {Probe(box, "svc_z"), nobodyOtherGroup, idFails, dependant,
                Probe(box, "svc_a").With("heartbeat", "{enable: true, interval: 0, count: 2}"), root, missing,
                execFails, rootOtherGroup, nobody, ending, firstDependant, refused};
    }

    // The manifest entry of a name.
    static const AppEntry& EntryOf(const std::string& name)
    {
        return *std::find_if(services_.begin(), services_.end(),
                             [&](const AppEntry& service) { return service.name == name; });
    }

    // The daemon's own environment plus what the base variant sets.
    static std::map<std::string, std::string> ExpectedEnv(const AppEntry& service)
    {
        std::map<std::string, std::string> env = daemonEnv_;
        for (const auto& entry : service.env) {
            env[entry.first] = entry.second;
        }
        env["PROC_NAME"] = service.name;
        env["HOME"] = SANDBOX_HOME;
        env["IS_RESTART"] = "0";
        if (!service.startupEntryPath.empty()) {
            env["STARTUP_ENTRY_PATH"] = service.startupEntryPath;
        }
        if (env["LD_PRELOAD"].find("libasan.so") != std::string::npos) {
            env["LD_PRELOAD"] = "libasan.so.4:libzul.so.1";
        } else if (env["LD_PRELOAD"].empty()) {
            env.erase("LD_PRELOAD");
        }
        return env;
    }

    // The last pipe text of one child, which may share a read with other
    // children's and with the child's own earlier text; its size is checked.
    static std::string ChildErrInfo(const std::string& name)
    {
        static const std::regex form("^sk receive child process errinfo size=([0-9]+), err: (.*)$");
        std::string head = "app=" + name + ",pid=" + std::to_string(daemon_->StartedPids(name).at(0)) + ",";
        std::string found;
        WaitUntil([&] {
            for (const std::string& line : daemon_->Lines()) {
                std::smatch match;
                std::string text = LogText(line);
                if (text.rfind(head) != std::string::npos && std::regex_match(text, match, form) &&
                    std::stoul(match[1]) == match[2].str().size()) {
                    found = text.substr(text.rfind(head) + head.size());
                    return true;
                }
            }
            return false;
        }, OWNER_WAIT_MS);
        return found;
    }

    // The record is filed before the wait thread can reap even a child that
    // dies at once, so its death is always matched to it.
    static bool DeathLogged(const std::string& name)
    {
        std::string pid = std::to_string(daemon_->StartedPids(name).at(0));
        return daemon_->WaitForExact("STAVIK : Process=" + name + ", pid=" + pid +
                                     " was self terminated, the exit status is 1.") &&
               daemon_->IndexOfExact("STAVIK: can not find app, pid=" + pid) < 0;
    }

    static Sandbox* sandbox_;
    static DaemonProcess* daemon_;
    static std::vector<AppEntry> services_;
    static bool bootEnded_;
    static std::map<std::string, std::string> daemonEnv_;
    static int daemonNice_;
};

Sandbox* BaseStartRun::sandbox_ = nullptr;
DaemonProcess* BaseStartRun::daemon_ = nullptr;
std::vector<AppEntry> BaseStartRun::services_;
bool BaseStartRun::bootEnded_ = false;
std::map<std::string, std::string> BaseStartRun::daemonEnv_;
int BaseStartRun::daemonNice_ = 0;

TEST_F(BaseStartRun, IndependentServicesStartInByteOrderAndADependantOfAServiceNotRunningFailsOnce)
{
    static const std::regex wellFormed(R"(^\[[0-9]+\.[0-9]{6}s\]\[BOOT_TRACE\]\[SK\] Start baseApp success )"
                                       R"(appName=[^,]*, binPath=[^,]*, pid=[0-9]+, isDelayCoreAffinity_=0$)");
    std::vector<std::string> names;
    for (const StartLine& start : daemon_->Starts()) {
        EXPECT_TRUE(std::regex_match(LogText(daemon_->Lines()[start.index]), wellFormed)) << start.name;
        EXPECT_EQ(EntryOf(start.name).binPath, start.binPath);
        names.push_back(start.name);
    }
    EXPECT_EQ((std::vector<std::string>{"Svc_Z", "svc-a", "svc10", "svc9", "svc_a", "svc_b", "svc_id", "svc_t",
                                        "svc_z"}),
              names);
    // The refused service between them doesn't stop the boot: the next name still starts.
    long refused = daemon_->IndexOfExact("STAVIK : Start App=svc_c failed, binPath=" + EntryOf("svc_c").binPath +
                                         " is not existed !!!");
    EXPECT_LT(daemon_->IndexOf("Start baseApp success appName=svc_b,"), refused);
    EXPECT_LT(refused, daemon_->IndexOf("Start baseApp success appName=svc_id,"));

    long depends = daemon_->IndexOfExact("STAVIK : after_t depends on svc_t [after_t => svc_t]");
    long failed = daemon_->IndexOfExact("STAVIK : after_t's dependcy svc_t hasn't been started");
    ASSERT_GE(depends, 0) << daemon_->Log();
    EXPECT_LT(depends, failed);
    EXPECT_LT(daemon_->IndexOf("Start baseApp success appName=svc_t,"), depends);
    std::regex gaveUp(R"(^stavik-daemon cur time:\[[0-9.]+s\]\[BOOT_TRACE\]\[SK\], start baseApp=after_t failed$)");
    std::vector<std::string> lines = daemon_->Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&](const std::string& line) { return std::regex_match(LogText(line), gaveUp); }));
    EXPECT_EQ(1u, daemon_->CountLines("after_t's dependcy"));
    EXPECT_FALSE(sandbox_->Exists("/out/after_t.rec"));
    EXPECT_LT(daemon_->IndexOfExact("STAVIK : Start App=A_bad failed, binPath=" + EntryOf("A_bad").binPath +
                                    " is not existed !!!"),
              daemon_->IndexOfExact("STAVIK : A_dep 's dependcy A_bad not find,"));
    EXPECT_EQ(1u, daemon_->CountExact("Start A_bad failed, state:INITSTATE"));
    EXPECT_EQ(0u, daemon_->CountLines("Start A_dep failed"));
    EXPECT_FALSE(sandbox_->Exists("/out/A_dep.rec"));
}

// Exactly the base variables, the identity of the manifest and the daemon's
// nice value: the base variant leaves the manifest's nice value alone.
TEST_F(BaseStartRun, EachChildHasItsEnvironmentIdentityAndEndpoint)
{
    const std::map<std::string, std::map<std::string, std::string>> beats = {
        {"Svc_Z", {{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "200"}, {"GRP_HB_COUNT", "3"}}},
        {"svc-a", {{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "1000"}}},
        {"svc9", {{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "60000"}}},
        {"svc_a", {{"GRP_HB", "1"}, {"GRP_HB_COUNT", "3"}}},
    };
    for (const std::string& name : HEALTHY) {
        SCOPED_TRACE(name);
        std::map<std::string, std::string> record = AwaitProbeRecord(sandbox_->Path("/out/" + name + ".rec"));
        ASSERT_FALSE(record.empty());
        const AppEntry& entry = EntryOf(name);
        std::map<std::string, std::string> expected = ExpectedEnv(entry);
        if (beats.count(name) != 0) {
            expected.insert(beats.at(name).begin(), beats.at(name).end());
        }
        // Each service finds its endpoint listening from before its main runs.
        EXPECT_EQ(record["listen_path"], sandbox_->TubixDir() + "/" + name);
        expected["TUBIX_LISTEN_FD"] = ProbeEnv(record)["TUBIX_LISTEN_FD"];
        EXPECT_EQ(expected, ProbeEnv(record));
        EXPECT_EQ(std::to_string(entry.uid), record["uid"]);
        EXPECT_EQ(std::to_string(entry.gid), record["gid"]);
        EXPECT_EQ(GroupsOf(entry.uid), ParseGroups(record["groups"]));
        EXPECT_EQ(std::to_string(daemonNice_), record["nice"]);
        EXPECT_EQ(std::to_string(daemon_->StartedPids(name).at(0)), record["pid"]);
        EXPECT_EQ(std::to_string(daemon_->Pid()), record["ppid"]);
    }
}

TEST_F(BaseStartRun, ChildrenFailingAfterTheForkLeaveTheirTextInTheLog)
{
    // The exec failure replaces whatever the child gathered before.
    std::string expected = "execv failed, execPath_=" + EntryOf("svc_b").binPath + ", errno=8;";
    EXPECT_EQ(expected, ChildErrInfo("svc_b").substr(0, expected.size()));
    EXPECT_TRUE(DeathLogged("svc_b")) << daemon_->Log();
    // Without its identity the child exits before the binary.
    std::string errInfo = ChildErrInfo("svc_id");
    EXPECT_NE(std::string::npos, errInfo.find("getpwuid is null;")) << errInfo;
    EXPECT_TRUE(DeathLogged("svc_id")) << daemon_->Log();
    EXPECT_FALSE(sandbox_->Exists("/out/svc_id.rec"));
}

} // namespace
} // namespace Test
} // namespace Stavik
