// The start of the base services by the real daemon in a sandbox root; the
// services are probe children that record what they were given.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>

#include "tests/support/daemon_process.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const uid_t NOBODY = 65534;
// An identity without a passwd entry: a child can't gather its groups.
const uid_t NO_SUCH_USER = 4242;
const std::string SANDBOX_HOME = "/home/tester";
const std::string PASSWD = "root:x:0:0:root:/root:/bin/sh\ntester:x:1000:1000:Tester:" + SANDBOX_HOME + ":/bin/sh\n";
const std::string BOOT_END = " InitBaseApplication end";
const int BOOT_TIMEOUT_MS = 30000;
const int CHILD_TIMEOUT_MS = 20000;

// A copy of the probe with its own owner and mode, for the execute-right rules.
std::string ProbeCopy(const Sandbox& sandbox, const std::string& name, uid_t owner, mode_t mode)
{
    std::string path = sandbox.Path("/bin/" + name);
    MakeDirs(sandbox.Path("/bin"));
    std::ifstream in(BuiltProgram("tests/probe_child"), std::ios::binary);
    std::ofstream out(path, std::ios::binary);
    out << in.rdbuf();
    out.close();
    EXPECT_EQ(0, chown(path.c_str(), owner, owner));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
}

// Children running under other users write their records in here.
std::string OutDir(const Sandbox& sandbox)
{
    MakeDirs(sandbox.Path("/out"));
    chmod(sandbox.Path("/out").c_str(), 0777);
    return sandbox.Path("/out");
}

bool BootEnded(const DaemonProcess& daemon)
{
    return WaitUntil([&] {
        for (const std::string& line : daemon.Lines()) {
            std::string text = LogText(line);
            if (text.size() >= BOOT_END.size() &&
                text.compare(text.size() - BOOT_END.size(), BOOT_END.size(), BOOT_END) == 0) {
                return true;
            }
        }
        return false;
    }, BOOT_TIMEOUT_MS);
}

// One daemon run over a manifest of healthy services and two whose children
// fail after the fork, shared by the tests of this suite.
class BaseStartRun : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sandbox_ = new Sandbox();
        sandbox_->WriteFile("/etc/passwd", PASSWD);
        out_ = OutDir(*sandbox_);
        services_ = Services();
        manifest_ = sandbox_->WriteFile("/etc/base_services.yaml", AppsText(services_));
        daemon_ = new DaemonProcess(*sandbox_, {manifest_});
        bootEnded_ = BootEnded(*daemon_);
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
    static std::vector<AppEntry> Services()
    {
        AppEntry idFails = ProbeApp("svc_id", {"--out", out_ + "/svc_id.rec"});
        idFails.binPath = ProbeCopy(*sandbox_, "probe_of_4242", NO_SUCH_USER, 0755);
        idFails.uid = NO_SUCH_USER;
        idFails.gid = NO_SUCH_USER;

        AppEntry execFails = ProbeApp("svc_b", {});
        execFails.binPath = sandbox_->WriteFile("/bin/not_a_program", "this is no program\n");
        chmod(execFails.binPath.c_str(), 0755);

        AppEntry missing = ProbeApp("svc_c", {});
        missing.binPath = sandbox_->Path("/bin/absent");

        AppEntry root = Probe("Svc_Z");
        root.nice = 7;
        root.env = {{"A_KEY", "a&&b $(c)"}, {"LD_PRELOAD", "/opt/libasan.so.6"}};
        root.heartBeat = HeartBeatSpec{true, 250, 1};
        root.startupEntryPath = "/etc/entry/svc_z.yaml";

        AppEntry nobody = Probe("svc-a");
        nobody.uid = NOBODY;
        nobody.gid = NOBODY;
        nobody.nice = -3;
        nobody.env = {{"HOME", "/from/manifest"}};
        nobody.heartBeat = HeartBeatSpec{true, 50, 1001};

        AppEntry rootOtherGroup = Probe("svc10");
        rootOtherGroup.gid = 1;
        rootOtherGroup.env = {{"LD_PRELOAD", "libfake_preload.so"}};
        rootOtherGroup.heartBeat = HeartBeatSpec{false, 500, 5};

        AppEntry nobodyOtherGroup = Probe("svc9");
        nobodyOtherGroup.uid = NOBODY;
        nobodyOtherGroup.gid = 1;
        nobodyOtherGroup.heartBeat = HeartBeatSpec{true, 70000, 0};

        AppEntry plain = Probe("svc_a");
        plain.heartBeat = HeartBeatSpec{true, 0, 2};

        // Its dependency announces its end before the boot goes on, so it is
        // never RUNNING when the dependant's turn comes, however slow the start.
        AppEntry ending = ToolOwner("svc_t", {R"({"type":"state","state":"TERMINATING"})"});
        AppEntry dependant = Probe("after_t");
        dependant.depends = {"svc_t"};

        return {Probe("svc_z"), nobodyOtherGroup, idFails, dependant, plain, root, missing,
                execFails, rootOtherGroup, nobody, ending};
    }

    static AppEntry Probe(const std::string& name)
    {
        return ProbeApp(name, {"--out", out_ + "/" + name + ".rec"});
    }

    // The manifest entry of a name; an empty one for a name the manifest doesn't have.
    static const AppEntry& EntryOf(const std::string& name)
    {
        static const AppEntry none;
        auto found = std::find_if(services_.begin(), services_.end(),
                                  [&](const AppEntry& service) { return service.name == name; });
        return found == services_.end() ? none : *found;
    }

    static std::map<std::string, std::string> WaitForRecord(const std::string& name)
    {
        std::string path = out_ + "/" + name + ".rec";
        WaitUntil([&] { return access(path.c_str(), F_OK) == 0; }, CHILD_TIMEOUT_MS);
        return ReadProbeRecord(path);
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
        if (env.count("LD_PRELOAD") != 0 && env["LD_PRELOAD"].find("libasan.so") != std::string::npos) {
            env["LD_PRELOAD"] = "libasan.so.4:libzul.so.1";
        }
        return env;
    }

    // The last pipe text of one child, which may share a read with other
    // children's and with the child's own earlier text.
    static std::string ChildErrInfo(const std::string& name)
    {
        std::vector<pid_t> pids = StartedPids(*daemon_, name);
        if (pids.size() != 1) {
            return "";
        }
        std::string head = "app=" + name + ",pid=" + std::to_string(pids[0]) + ",";
        std::string found;
        WaitUntil([&] {
            for (const std::string& line : daemon_->Lines()) {
                size_t at = LogText(line).rfind(head);
                if (at != std::string::npos && PipeLineWellFormed(LogText(line))) {
                    found = LogText(line).substr(at + head.size());
                    return true;
                }
            }
            return false;
        }, CHILD_TIMEOUT_MS);
        return found;
    }

    // The record is filed before the wait thread can reap even a child that
    // dies at once, so its death is always matched to it.
    static bool DeathLogged(const std::string& name)
    {
        std::string pid = std::to_string(StartedPids(*daemon_, name).at(0));
        return WaitUntil([&] {
            return IndexOfExact(*daemon_, "STAVIK : Process=" + name + ", pid=" + pid +
                                              " was self terminated, the exit status is 1.") >= 0;
        }, CHILD_TIMEOUT_MS) && IndexOfExact(*daemon_, "STAVIK: can not find app, pid=" + pid) < 0;
    }

    static bool PipeLineWellFormed(const std::string& text)
    {
        static const std::regex form("^sk receive child process errinfo size=([0-9]+), err: (.*)$");
        std::smatch match;
        return std::regex_match(text, match, form) && std::stoul(match[1]) == match[2].str().size();
    }

    static Sandbox* sandbox_;
    static DaemonProcess* daemon_;
    static std::string out_;
    static std::string manifest_;
    static std::vector<AppEntry> services_;
    static bool bootEnded_;
    static std::map<std::string, std::string> daemonEnv_;
    static int daemonNice_;
};

Sandbox* BaseStartRun::sandbox_ = nullptr;
DaemonProcess* BaseStartRun::daemon_ = nullptr;
std::string BaseStartRun::out_;
std::string BaseStartRun::manifest_;
std::vector<AppEntry> BaseStartRun::services_;
bool BaseStartRun::bootEnded_ = false;
std::map<std::string, std::string> BaseStartRun::daemonEnv_;
int BaseStartRun::daemonNice_ = 0;

const std::vector<std::string> HEALTHY = {"Svc_Z", "svc-a", "svc10", "svc9", "svc_a", "svc_z"};

TEST_F(BaseStartRun, IndependentServicesStartInByteOrderOfTheirNames)
{
    std::vector<std::string> names;
    for (const BaseAppStart& start : BaseAppStarts(*daemon_)) {
        EXPECT_TRUE(start.wellFormed) << start.name;
        EXPECT_EQ(EntryOf(start.name).binPath, start.binPath);
        names.push_back(start.name);
    }
    EXPECT_EQ((std::vector<std::string>{"Svc_Z", "svc-a", "svc10", "svc9", "svc_a", "svc_b", "svc_id", "svc_t",
                                        "svc_z"}),
              names);
    // The refused service between them doesn't stop the boot: the next name still starts.
    long refused = IndexOfExact(*daemon_, "STAVIK : Start App=svc_c failed, binPath=" + EntryOf("svc_c").binPath +
                                              " is not existed !!!");
    EXPECT_LT(daemon_->IndexOf("Start baseApp success appName=svc_b,"), refused);
    EXPECT_LT(refused, daemon_->IndexOf("Start baseApp success appName=svc_id,"));
}

TEST_F(BaseStartRun, DependantOfAServiceNotRunningFailsOnceAndIsNotRetried)
{
    long depends = IndexOfExact(*daemon_, "STAVIK : after_t depends on svc_t [after_t => svc_t]");
    long failed = IndexOfExact(*daemon_, "STAVIK : after_t's dependcy svc_t hasn't been started");
    ASSERT_GE(depends, 0) << daemon_->Log();
    EXPECT_LT(depends, failed);
    EXPECT_LT(daemon_->IndexOf("Start baseApp success appName=svc_t,"), depends);
    std::regex gaveUp(R"(^stavik-daemon cur time:\[[0-9.]+s\]\[BOOT_TRACE\]\[SK\], start baseApp=after_t failed$)");
    std::vector<std::string> lines = daemon_->Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&](const std::string& line) { return std::regex_match(LogText(line), gaveUp); }));
    EXPECT_EQ(1u, daemon_->CountLines("after_t's dependcy"));
    EXPECT_TRUE(StartedPids(*daemon_, "after_t").empty());
    EXPECT_FALSE(sandbox_->Exists("/out/after_t.rec"));
}

TEST_F(BaseStartRun, ChildEnvironmentHoldsExactlyTheBaseVariables)
{
    for (const std::string& name : HEALTHY) {
        std::map<std::string, std::string> record = WaitForRecord(name);
        ASSERT_FALSE(record.empty()) << name;
        std::map<std::string, std::string> expected = ExpectedEnv(EntryOf(name));
        if (name == "Svc_Z") {
            expected.insert({{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "200"}, {"GRP_HB_COUNT", "3"}});
        } else if (name == "svc-a") {
            expected.insert({{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "100"}, {"GRP_HB_COUNT", "1000"}});
        } else if (name == "svc9") {
            expected.insert({{"GRP_HB", "1"}, {"GRP_HB_INTERVAL", "60000"}});
        } else if (name == "svc_a") {
            expected.insert({{"GRP_HB", "1"}, {"GRP_HB_COUNT", "3"}});
        }
        // Each service finds its endpoint listening from before its main runs.
        EXPECT_EQ(record["listen_path"], sandbox_->TubixDir() + "/" + name);
        expected["TUBIX_LISTEN_FD"] = ProbeEnv(record)["TUBIX_LISTEN_FD"];
        EXPECT_EQ("", MapDiff(expected, ProbeEnv(record))) << "service " << name;
    }
}

TEST_F(BaseStartRun, ChildRunsWithItsIdentityAndTheDaemonsNiceValue)
{
    for (const std::string& name : HEALTHY) {
        std::map<std::string, std::string> record = WaitForRecord(name);
        ASSERT_FALSE(record.empty()) << name;
        const AppEntry& entry = EntryOf(name);
        EXPECT_EQ(std::to_string(entry.uid), record["uid"]) << name;
        EXPECT_EQ(std::to_string(entry.gid), record["gid"]) << name;
        EXPECT_EQ(SupplementaryGroupsOf(entry.uid), ParseGroups(record["groups"])) << name;
        // The base variant leaves the manifest's nice value alone.
        EXPECT_EQ(std::to_string(daemonNice_), record["nice"]) << name;
        EXPECT_EQ(std::to_string(StartedPids(*daemon_, name).at(0)), record["pid"]) << name;
        EXPECT_EQ(std::to_string(daemon_->Pid()), record["ppid"]) << name;
    }
}

TEST_F(BaseStartRun, FailedExecLeavesTheChildsTextInTheLog)
{
    // The exec failure replaces whatever the child gathered before.
    std::string expected = "execv failed, execPath_=" + EntryOf("svc_b").binPath + ", errno=8;";
    EXPECT_EQ(expected, ChildErrInfo("svc_b").substr(0, expected.size()));
    EXPECT_TRUE(DeathLogged("svc_b")) << daemon_->Log();
}

TEST_F(BaseStartRun, ChildWithoutItsIdentityExitsBeforeTheBinary)
{
    std::string errInfo = ChildErrInfo("svc_id");
    EXPECT_NE(std::string::npos, errInfo.find("getpwuid is null;")) << errInfo;
    EXPECT_TRUE(DeathLogged("svc_id")) << daemon_->Log();
    EXPECT_FALSE(sandbox_->Exists("/out/svc_id.rec"));
}

// Every refused service gets its own line, no fork, and the boot goes on; with
// nothing started yet, the dependant of a refused one gets the "'s" form.
TEST(BaseStartRefusal, RefusedServicesAreNotForkedAndTheBootGoesOn)
{
    Sandbox sandbox;
    std::string out = OutDir(sandbox);
    AppEntry badArgs = ProbeApp("a_args", {"--out", out + "/a_args.rec", "x&&y"});
    AppEntry missing = ProbeApp("b_missing", {});
    missing.binPath = sandbox.Path("/bin/absent");
    AppEntry rootNoExec = ProbeApp("c_noexec", {"--out", out + "/c_noexec.rec"});
    rootNoExec.binPath = ProbeCopy(sandbox, "probe_0644", 0, 0644);
    AppEntry ownerNoExec = ProbeApp("c_owner", {"--out", out + "/c_owner.rec"});
    ownerNoExec.binPath = ProbeCopy(sandbox, "probe_0655", NOBODY, 0655);
    ownerNoExec.uid = NOBODY;
    ownerNoExec.gid = NOBODY;
    AppEntry dependant = ProbeApp("d_dep", {"--out", out + "/d_dep.rec"});
    dependant.depends = {"a_args"};
    std::string manifest = sandbox.WriteFile(
        "/etc/base.yaml", AppsText({dependant, ownerNoExec, rootNoExec, missing, badArgs}));

    DaemonProcess daemon(sandbox, {manifest});
    ASSERT_TRUE(BootEnded(daemon)) << daemon.Log();

    std::vector<std::string> refusals = {
        "STAVIK : CheckChildProParas App=a_args arguments include illegal str",
        "STAVIK : Start App=b_missing failed, binPath=" + missing.binPath + " is not existed !!!",
        "STAVIK : Start App=c_noexec failed, cfg uid is root, but binPath=" + rootNoExec.binPath +
            " uid=0 not have x permission !!",
        "STAVIK : Start App=c_owner failed, cfg uid=65534, but binPath=" + ownerNoExec.binPath +
            " uid=65534 not have x permission !!",
        "STAVIK : d_dep depends on a_args [d_dep => a_args]",
        "STAVIK : d_dep 's dependcy a_args hasn't been started",
    };
    long previous = -1;
    for (const std::string& refusal : refusals) {
        long at = IndexOfExact(daemon, refusal);
        EXPECT_LT(previous, at) << refusal << "\n" << daemon.Log();
        previous = at;
    }
    for (const char* name : {"a_args", "b_missing", "c_noexec", "c_owner"}) {
        EXPECT_EQ(1u, CountExact(daemon, "Start " + std::string(name) + " failed, state:INITSTATE")) << name;
        EXPECT_FALSE(sandbox.Exists("/out/" + std::string(name) + ".rec")) << name;
    }
    EXPECT_EQ(0u, daemon.CountLines("Start d_dep failed"));
    EXPECT_EQ(5u, daemon.CountLines(", start baseApp="));
    EXPECT_TRUE(BaseAppStarts(daemon).empty());
    EXPECT_TRUE(WaitForExactLine(daemon, "STAVIK : EnableWatchDog flag=0", BOOT_TIMEOUT_MS));
}

} // namespace
} // namespace Test
} // namespace Stavik
