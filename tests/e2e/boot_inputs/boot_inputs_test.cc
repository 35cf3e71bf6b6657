// What the platform tells the daemon at boot: the kernel command line picks
// the manifest and the optional entries, the environment file the locked
// memory of every child, and the digest list which binaries may start.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "app/process_state.h"
#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const std::string CFG_DIR = "/etc/qel/base-plat/stavik-daemon/";
const std::string ENV_FILE = "/etc/ostrel_common_env.conf";

// "soft hard" of the locked-memory row of a process's limits.
std::string LockedMemory(pid_t pid)
{
    std::string limits = ReadWholeFile("/proc/" + std::to_string(pid) + "/limits");
    size_t at = limits.find("Max locked memory");
    std::istringstream fields(at == std::string::npos ? "" : limits.substr(at + 17));
    std::string soft;
    std::string hard;
    fields >> soft >> hard;
    return soft + " " + hard;
}

// Raising the hard limit needs CAP_SYS_RESOURCE, which a container may lack:
// then the daemon keeps the limit it was given.
std::string UnlimitedAsSeen()
{
    pid_t child = fork();
    if (child == 0) {
        struct rlimit all {RLIM_INFINITY, RLIM_INFINITY};
        _exit(setrlimit(RLIMIT_MEMLOCK, &all) == 0 ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0 ? "unlimited unlimited" : LockedMemory(getpid());
}

std::string Digest(const std::string& path)
{
    return RunCommand("sha256sum '" + path + "'").second.substr(0, 64);
}

struct BootCase {
    std::string cmdline;
    std::string envFile;
    bool failSafe;
    std::vector<std::string> started;
    std::vector<std::string> notStarted;
    std::string locked;
    std::vector<std::string> lines;
};

TEST(BootInputsRun, CommandLineChoosesManifestAndFeaturesAndEveryChildGetsTheLockedMemoryLimit)
{
    Sandbox box;
    AppEntry em = ProbeApp("em_svc").With("cfg_path", "/etc/em/emService.yaml");
    std::string base = box.WriteFile("/etc/base.yaml", AppsText({ProbeApp("default_svc")}));
    std::string mine = box.WriteFile(CFG_DIR + "my.yaml", AppsText({ProbeApp("my_svc"), em}));
    const std::string safe = CFG_DIR + "startup_stavik_suspend_resume_fail.yaml";
    const std::vector<BootCase> cases = {
        {"console=ttyAMA0 stavik=nowatchdog,boot:my.yaml,em yrnmode=kernel_utils\n",
         "MAX_LOCKED_MEMORY_LIMIT=65536\n", false, {"my_svc", "em_svc"}, {"default_svc"}, "65536 65536",
         {"Stavik: cmdline disableWatchDog_=1", "Stavik: emService.yaml need enable",
          "Stavik: cmdline cfg startup yaml: " + mine, "Stavik: cmdline yrncoreEnable=1",
          "Stavik: startup yaml " + base + " replaced by cmdline startup yaml " + mine}},
        {"stavik=boot:my.yaml reboot_reason=XSUSPEND_FAILY\n", "A=1\nMAX_LOCKED_MEMORY_LIMIT=unlimited\n", false,
         {"my_svc"}, {"em_svc", "default_svc"}, UnlimitedAsSeen(),
         {"STAVIK: GetLockedMemoryLimitFromCfg limit is unlimited", "Stavik: cmdline disableWatchDog_=0",
          "Stavik: cmdline yrncoreEnable=0",
          "Stavik: /etc/em/emService.yaml will not enable as not configured in cmdline",
          "Stavik: cmdline cfg startup yaml " + box.Path(safe) + " standardizationPath failed"}},
        {"stavik=boot:my.yaml,em reboot_reason=XSUSPEND_FAILY yrnmode\n",
         "export MAX_LOCKED_MEMORY_LIMIT=65536\n", true, {"safe_svc"}, {"my_svc", "em_svc"}, "0 0",
         {"Stavik: cmdline cfg startup yaml: " + box.Path(safe), "em need enable, but not rightly configured",
          "Stavik: cmdline key=yrnmode ends the line without a value, taken as absent"}},
    };
    for (const BootCase& c : cases) {
        box.WriteFile("/proc/cmdline", c.cmdline);
        box.WriteFile(ENV_FILE, c.envFile);
        if (c.failSafe) {
            box.WriteFile(safe, AppsText({ProbeApp("safe_svc")}));
        }
        DaemonProcess daemon(box, {base});
        ASSERT_NE("", daemon.WaitForLine("InitBaseApplication end", OWNER_WAIT_MS)) << c.cmdline << daemon.Log();
        for (const std::string& name : c.started) {
            std::vector<pid_t> pids = daemon.StartedPids(name);
            ASSERT_EQ(1u, pids.size()) << c.cmdline << name << daemon.Log();
            EXPECT_EQ(c.locked, LockedMemory(pids[0])) << c.cmdline;
        }
        for (const std::string& name : c.notStarted) {
            EXPECT_TRUE(daemon.StartedPids(name).empty()) << c.cmdline << name;
        }
        for (const std::string& line : c.lines) {
            EXPECT_EQ(1u, daemon.CountExact(line)) << c.cmdline << line << "\n" << daemon.Log();
        }
    }
}

// The tool on the daemon's PATH notes each path it is given, so a start
// that should never reach a shell shows there.
TEST(BootInputsRun, ListedBinariesStartOnlyWithTheirDigestAndOddPathsNeverReachAShell)
{
    Sandbox box;
    std::string calls = box.Path("/out/sha.calls");
    box.WriteFile("/tools/sha256sum", "#!/bin/sh\necho \"$@\" >> " + calls + "\nexec /usr/bin/sha256sum \"$@\"\n", 0755);
    std::map<std::string, std::string> bins;
    for (const std::string name : {"good", "bad", "plain", "a b", "a;b"}) {
        bins[name] = box.CopyProgram(BuiltProgram("tests/probe_child"), "/bin/" + name);
    }
    box.WriteFile(CFG_DIR + "bin_hash.cfg", std::string(300, 'x') + "=y\ngood=" + Digest(bins["good"]) +
                                                "\nbad=" + std::string(64, 'f') + "\na b=0\na;b=0\n");
    std::vector<AppEntry> general;
    for (const std::string name : {"bad", "a b", "a;b"}) {
        general.push_back(ProbeApp(name == "bad" ? "bad" : name == "a b" ? "blank" : "semi"));
        general.back().binPath = bins[name];
    }
    std::string startup = box.WriteFile("/etc/startup/owner_d.yaml", AppsText(general));
    AppEntry good = ProbeApp("good");
    good.binPath = bins["good"];
    AppEntry plain = ProbeApp("plain");
    plain.binPath = bins["plain"];
    std::string base = box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("owner_d", startup), good, plain}));

    PlayedOwners owners(box, {"owner_d"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {base}, {{"PATH", box.Path("/tools") + ":" + getenv("PATH")}});
    OwnerSession& owner = owners["owner_d"];
    ASSERT_TRUE(ReportRunning(owner)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("InitBaseApplication end", OWNER_WAIT_MS)) << daemon.Log();
    EXPECT_EQ(1u, daemon.StartedPids("good").size()) << daemon.Log();
    EXPECT_EQ(1u, daemon.StartedPids("plain").size()) << daemon.Log();

    ASSERT_TRUE(LoadStartup(owner)) << owner.LastError();
    size_t mark = owner.EventCount();
    ASSERT_TRUE(owner.SendStart({{"bad", {}, {}}, {"blank", {}, {}}, {"semi", {}, {}}})) << owner.LastError();
    for (const std::string name : {"bad", "blank", "semi"}) {
        EXPECT_TRUE(owner.WaitForAppState(name, TERMINATED_ABNORMAL_EXIT, OWNER_WAIT_MS, mark)) << name;
    }
    EXPECT_TRUE(daemon.WaitForExact("STAVIK : IntegrityProtect app=" + bins["bad"] +
                                             " or sha256sum has been modified", OWNER_WAIT_MS));
    for (const std::string name : {"a b", "a;b"}) {
        const std::string illegal = "STAVIK: IntegrityProtect appPath=" + bins[name] + " is illegal";
        EXPECT_TRUE(daemon.WaitForExact(illegal, OWNER_WAIT_MS)) << name;
    }
    EXPECT_EQ(1u, daemon.CountExact("STAVIK: hash config string=" + box.Path(CFG_DIR + "bin_hash.cfg") +
                                         " format is false"));
    // One shell each for the two listed plain paths; the helpers are nobody's applications.
    EXPECT_EQ(bins["good"] + "\n" + bins["bad"] + "\n", ReadWholeFile(calls));
    EXPECT_EQ(0u, daemon.CountLines("can not find app"));
}

} // namespace
} // namespace Test
} // namespace Stavik
