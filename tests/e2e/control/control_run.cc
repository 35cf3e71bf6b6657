#include "tests/e2e/control/control_run.h"

#include <signal.h>

namespace Stavik {
namespace Test {
namespace {

const std::vector<std::string> OWNERS = {"owner_a", "owner_b", "zulmgr"};

AppEntry Stubborn(const std::string& name, uint32_t termTimeoutMs, bool forceTerm)
{
    return ProbeApp(name, {"--ignore-term"})
        .With("term_timeout_ms", std::to_string(termTimeoutMs))
        .With("force_term", forceTerm ? "true" : "false");
}

// One manifest serves every "dyn_*": path, arguments, two environment values
// and the virtual function id come from the request.
AppEntry DynamicWorkers(const Sandbox& box)
{
    box.CopyProgram(BuiltProgram("tests/probe_child"), "/bin/dyn/probe");
    AppEntry entry;
    entry.name = "${dyn_*}";
    entry.binPath = "${" + box.Path("/bin/dyn/*") + "}";
    entry.args = {"${*}"};
    entry.env = {{"DYN_ROLE", "${[a-z]*}"}, {"FIXED", "yes"}};
    return entry.With("dynamic_para", "true").With("vf_id_pattern", "\"${[0-9]*}\"");
}

std::string StartupPath(const Sandbox& box, const std::string& owner)
{
    return box.Path("/etc/startup/" + owner + ".yaml");
}

} // namespace

Sandbox* ControlRun::sandbox_ = nullptr;
PlayedOwners* ControlRun::owners_ = nullptr;
DaemonProcess* ControlRun::daemon_ = nullptr;
std::string ControlRun::setupError_;
std::map<std::string, std::string> ControlRun::loadAnswers_;
const std::string ControlRun::elsewherePath_ = "/elsewhere/startup.yaml";

void ControlRun::SetUpTestSuite()
{
    sandbox_ = new Sandbox();
    WriteManifests();
    owners_ = new PlayedOwners(*sandbox_, OWNERS);
    setupError_ = owners_->Error();
    daemon_ = new DaemonProcess(*sandbox_, {sandbox_->Path("/etc/base.yaml")});
    if (setupError_.empty()) {
        BootAndLoad();
    }
}

void ControlRun::TearDownTestSuite()
{
    delete daemon_;
    delete owners_;
    delete sandbox_;
}

void ControlRun::WriteManifests()
{
    const Sandbox& box = *sandbox_;
    box.WriteFile("/etc/startup/owner_a.yaml",
                  AppsText({DynamicWorkers(box), ProbeApp("r_one"), ProbeApp("q_app")}));
    box.WriteFile("/etc/startup/owner_b.yaml",
                  AppsText({ProbeApp("t_plain"), Stubborn("t_stuck", 20000, false), Stubborn("t_stuck_r", 20000, false),
                            ProbeApp("t_idle"), Stubborn("t_force", 300, true), Stubborn("t_noforce", 300, false),
                            ProbeApp("t_list1"), ProbeApp("t_list3"), ProbeApp("m_evb").With("match", "{board: evb}"),
                            ProbeApp("m_other").With("match", "{board: other}"), ProbeApp("snap_app")}));
    box.WriteFile("/etc/startup/zulmgr.yaml", AppsText({ProbeApp("z_app")}));
    std::vector<AppEntry> bases;
    for (const char* owner : {"zulmgr", "owner_b", "owner_a"}) {
        bases.push_back(DummyOwner(owner, StartupPath(box, owner)));
    }
    box.WriteFile("/etc/base.yaml", AppsText(bases));
}

// The daemon waits for each reporting service in turn, in byte order of the
// names. A start before the owner's load finds no record for its application.
void ControlRun::BootAndLoad()
{
    for (const std::string& owner : OWNERS) {
        if (!ReportRunning(Owner(owner))) {
            setupError_ = owner + " got no pipe or could not report RUNNING: " + Owner(owner).LastError();
            return;
        }
    }
    if (daemon_->WaitForLine(" InitBaseApplication end", OWNER_WAIT_MS).empty()) {
        setupError_ = "the base start did not end";
        return;
    }
    if (!Start("owner_b", {"t_plain"}) || !WaitForExact("STAVIK : StartApp: appName=t_plain is null")) {
        setupError_ = "a start before the load was not refused as unknown";
        return;
    }
    for (const std::string& owner : OWNERS) {
        Message::StartupCfgInfo info{{}, StartupPath(*sandbox_, owner)};
        if (owner == "owner_b") {
            info = Message::StartupCfgInfo{{{"board", "evb"}}, elsewherePath_};
        }
        std::string answer;
        loadAnswers_[owner] = Owner(owner).LoadStartupCfg(info, answer, OWNER_WAIT_MS)
                                  ? answer
                                  : "call failed: " + Owner(owner).LastError();
    }
}

std::optional<Message::AppStateInfo> ControlRun::Await(const std::string& owner, const std::string& app,
                                                       ReportAppStateType state, size_t mark)
{
    return Owner(owner).WaitForAppState(app, static_cast<uint32_t>(state), OWNER_WAIT_MS, mark);
}

bool ControlRun::Start(const std::string& owner, const std::vector<std::string>& apps)
{
    std::vector<Message::StartAppInfo> entries;
    for (const std::string& app : apps) {
        entries.push_back({app, {}, {}});
    }
    return Owner(owner).SendStart(entries);
}

bool ControlRun::Restart(const std::string& owner, const std::vector<std::string>& apps)
{
    std::vector<Message::RestartAppInfo> entries;
    for (const std::string& app : apps) {
        entries.push_back({app, {}, {}});
    }
    return Owner(owner).SendRestart(entries);
}

bool ControlRun::Term(const std::string& owner, const std::vector<std::string>& apps)
{
    return Owner(owner).SendTerm(apps);
}

std::optional<Message::AppStateInfo> ControlRun::Ask(Request request, const std::string& owner, const std::string& app,
                                                     ReportAppStateType state)
{
    size_t mark = Mark(owner);
    return request(owner, {app}) ? Await(owner, app, state, mark) : std::nullopt;
}

// The log arrives through a pipe of its own, behind the reports: a line that
// the daemon writes now is read after all that it wrote before.
size_t ControlRun::Count(const std::string& text)
{
    static int syncs = 0;
    const std::string name = "logsync_" + std::to_string(++syncs);
    EXPECT_TRUE(Term("owner_a", {name}) && WaitForExact("STAVIK : termApp failed: not find app=" + name));
    return daemon_->CountExact(text);
}

pid_t ControlRun::StartRunning(const std::string& owner, const std::string& app)
{
    std::optional<Message::AppStateInfo> running = Ask(&Start, owner, app, RUNNING_NORMAL_START);
    return running ? static_cast<pid_t>(running->pid) : 0;
}

pid_t ControlRun::StartStubborn(const std::string& owner, const std::string& app)
{
    pid_t pid = StartRunning(owner, app);
    return pid > 0 && WaitUntil([&] { return IgnoresSignal(pid, SIGTERM); }, OWNER_WAIT_MS) ? pid : 0;
}

std::vector<Message::AppStateInfo> ControlRun::AwaitEntries(const std::string& owner, const std::string& app,
                                                            size_t count, size_t mark)
{
    WaitUntil([&] { return EntriesOf(Owner(owner), app, mark).size() >= count; }, OWNER_WAIT_MS);
    return EntriesOf(Owner(owner), app, mark);
}

bool ControlRun::WaitForRemovals(const std::string& app, size_t count)
{
    const std::string removed = "STAVIK : Process " + app + " removed from the list of generalAppMap_";
    return WaitUntil([&] { return Count(removed) >= count; }, OWNER_WAIT_MS);
}

} // namespace Test
} // namespace Stavik
