// Start-up files loaded on request, dynamic parameters, who hears of which
// change, how a large report is cut into records, the snapshot for a
// restarting naming service, and the answer to QUERY_APP_STATE.
#include <signal.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <utility>

#include "tests/e2e/control/control_run.h"

namespace Stavik {
namespace Test {
namespace {

using Client::OwnerEvent;

// The most text of pieces that one report record carries.
const size_t RECORD_PIECES_MAX = 3955;

// An entry as it travels: name, pid, gid, state and reason, each ended by "#".
std::string Piece(const Message::AppStateInfo& entry)
{
    return entry.appName + "#" + std::to_string(entry.pid) + "#" + std::to_string(entry.gid) + "#" +
           std::to_string(entry.state) + "#" + std::to_string(entry.reason) + "#";
}

bool ShorterFirst(const std::string& left, const std::string& right)
{
    return std::make_pair(left.size(), left) < std::make_pair(right.size(), right);
}

// The REPORT events since mark that carry names with this prefix, each as its pieces.
std::vector<std::vector<std::string>> RecordsWithPrefix(const OwnerSession& owner, const std::string& prefix,
                                                        size_t mark)
{
    std::vector<std::vector<std::string>> records;
    for (const OwnerEvent& event : owner.Events()) {
        if (event.index < mark || event.kind != OwnerEvent::Kind::REPORT) {
            continue;
        }
        std::vector<std::string> pieces;
        for (const Message::AppStateInfo& entry : event.apps) {
            if (entry.appName.compare(0, prefix.size(), prefix) == 0) {
                pieces.push_back(Piece(entry));
            }
        }
        if (!pieces.empty()) {
            records.push_back(pieces);
        }
    }
    return records;
}

// The index of the first REPORT event since mark that carries app in `state`, or -1.
long ReportIndex(const OwnerSession& owner, const std::string& app, uint32_t state, size_t mark)
{
    for (const OwnerEvent& event : owner.Events()) {
        const Message::AppStateInfo* entry = event.FindApp(app);
        if (event.index >= mark && entry != nullptr && entry->state == state) {
            return static_cast<long>(event.index);
        }
    }
    return -1;
}

std::optional<Message::AppDetailStatusMap> Query(OwnerSession& owner, const std::vector<std::string>& apps)
{
    size_t mark = owner.EventCount();
    auto isDetail = [](const OwnerEvent& event) { return event.kind == OwnerEvent::Kind::DETAIL; };
    std::optional<OwnerEvent> answer;
    if (owner.SendQuery(apps)) {
        answer = owner.WaitFor(isDetail, OWNER_WAIT_MS, mark);
    }
    return answer ? std::optional<Message::AppDetailStatusMap>(answer->detail) : std::nullopt;
}

TEST_F(ControlRun, StartupFilesAreLoadedOnRequestFromTheOwnersOwnEntry)
{
    for (const auto& answer : loadAnswers_) {
        EXPECT_EQ("0", answer.second) << answer.first;
    }
    // The application was unknown before its owner's load.
    EXPECT_EQ(1u, Count("STAVIK : StartApp: appName=t_plain is null"));
    // The path in the request is only logged; the owner's own file is loaded,
    // with the entries that the match data selects.
    const std::string loadLine = " SK receive LOAD_STARTUP_CFG msg load file=" + elsewherePath_;
    EXPECT_NE("", Daemon().WaitForLine(loadLine, OWNER_WAIT_MS));
    EXPECT_GT(StartRunning("owner_b", "m_evb"), 0) << Daemon().Log();
    ASSERT_TRUE(Start("owner_b", {"m_other"}));
    EXPECT_TRUE(WaitForExact("STAVIK : StartApp: appName=m_other is null"));
}

TEST_F(ControlRun, DynamicParametersAreAcceptedOnlyWithinTheirPatterns)
{
    const std::string bin = Box().Path("/bin/dyn/probe");
    const std::string pathPattern = "${" + Box().Path("/bin/dyn/*") + "}";
    const std::string record = Box().Path("/out/dyn_ok.rec");
    std::vector<Message::StartAppInfo> starts = {
        {"dyn_ok", {"--out", record}, {{0, {bin}}, {1, {"7"}}, {2, {"DYN_ROLE=worker", "OTHER=1"}}}},
        {"dyn_path", {}, {{0, {"/usr/bin/true"}}}},
        {"dyn_two", {}, {{0, {bin, bin}}}},
        {"dyn_token", {}, {{0, {bin + ";x"}}}},
        {"dyn_vfid", {}, {{0, {bin}}, {1, {"x7"}}}},
        {"dyn_env", {}, {{0, {bin}}, {2, {"DYN_ROLE=Worker"}}}},
        {"dyn_form", {}, {{0, {bin}}, {2, {"DYN_ROLE="}}}},
    };
    size_t mark = Mark("owner_a");
    ASSERT_TRUE(Owner("owner_a").SendStart(starts)) << Owner("owner_a").LastError();

    std::optional<Message::AppStateInfo> running = Await("owner_a", "dyn_ok", RUNNING_NORMAL_START, mark);
    ASSERT_TRUE(running.has_value()) << Daemon().Log();
    for (size_t i = 1; i < starts.size(); ++i) {
        std::optional<Message::AppStateInfo> refused =
            Await("owner_a", starts[i].appName, TERMINATED_ABNORMAL_EXIT, mark);
        ASSERT_TRUE(refused.has_value()) << starts[i].appName;
        EXPECT_EQ(0u, refused->pid) << starts[i].appName;
        EXPECT_EQ(1u, Count("STAVIK : StartApp failed : appName=" + starts[i].appName + ", dynamic para invalid"));
    }
    EXPECT_EQ(1u, Count("STAVIK : dynamic execPath invalid, pattern=" + pathPattern + ", execPath=/usr/bin/true"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic execPath vector size invalid, 2"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic execPath invalid, pattern=" + pathPattern + ", execPath=" + bin + ";x"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic vfid invalid, pattern=${[0-9]*}, vfid=x7"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic env value invalid, key=DYN_ROLE, pattern=${[a-z]*}, env=DYN_ROLE=Worker"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic env invalid, DYN_ROLE="));

    EXPECT_EQ(1u, Count("STAVIK : UpdateExecvPath dynamic appName=dyn_ok, execPath=" + bin));
    EXPECT_EQ(1u, Count("STAVIK : UpdateVfId dynamic appName=dyn_ok, vfId=7"));
    EXPECT_EQ(1u, Count("STAVIK : dynamic env key not in yaml cfg, OTHER=1, ignore it"));
    EXPECT_EQ(1u, Count("STAVIK : UpdateEnv dynamic appName=dyn_ok, env=FIXED=yes DYN_ROLE=worker "));
    std::map<std::string, std::string> probe = AwaitProbeRecord(record);
    EXPECT_EQ(bin + " --out " + record, probe["argv"]);
    EXPECT_EQ(std::to_string(running->pid), probe["pid"]);
    std::map<std::string, std::string> env = ProbeEnv(probe);
    EXPECT_EQ("worker", env["DYN_ROLE"]);
    EXPECT_EQ("yes", env["FIXED"]);
    EXPECT_EQ(0u, env.count("OTHER"));
}

TEST_F(ControlRun, ZulmgrHearsEveryChangeAndEachOwnerItsOwn)
{
    std::map<std::string, size_t> marks;
    for (const std::string owner : {"owner_a", "owner_b", "zulmgr"}) {
        marks[owner] = Mark(owner);
    }
    ASSERT_GT(StartRunning("zulmgr", "z_app"), 0) << Daemon().Log();
    pid_t pid = StartRunning("owner_a", "r_one");
    ASSERT_GT(pid, 0) << Daemon().Log();

    // Another owner asking for the running application is answered itself, but
    // the record stays with its first owner, who hears of its end.
    size_t mark = Mark("owner_b");
    ASSERT_TRUE(Start("owner_b", {"r_one"}));
    ASSERT_TRUE(Await("owner_b", "r_one", RUNNING_NORMAL_START, mark).has_value());
    ASSERT_TRUE(Term("owner_b", {"r_one"}));
    ASSERT_TRUE(Await("owner_a", "r_one", TERMINATED_NORMAL_EXIT, marks["owner_a"]).has_value()) << Daemon().Log();
    ASSERT_TRUE(Barrier(Owner("owner_b")));
    ASSERT_TRUE(Barrier(Owner("zulmgr")));

    EXPECT_EQ((std::vector<uint32_t>{0, 3}), StatesOf(EntriesOf(Owner("owner_a"), "r_one", marks["owner_a"])));
    EXPECT_EQ((std::vector<uint32_t>{0}), StatesOf(EntriesOf(Owner("owner_b"), "r_one", marks["owner_b"])));
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 3}), StatesOf(EntriesOf(Owner("zulmgr"), "r_one", marks["zulmgr"])));
    // An application of the naming service itself is told to it once.
    EXPECT_EQ((std::vector<uint32_t>{0}), StatesOf(EntriesOf(Owner("zulmgr"), "z_app", marks["zulmgr"])));
    EXPECT_TRUE(EntriesOf(Owner("owner_a"), "z_app", marks["owner_a"]).empty());
    EXPECT_TRUE(EntriesOf(Owner("owner_b"), "z_app", marks["owner_b"]).empty());
}

TEST_F(ControlRun, ManyChangesArriveAsSeveralRecordsSortedByLength)
{
    std::vector<std::string> names;
    for (int i = 1; i <= 400; ++i) {
        names.push_back("gone_" + std::to_string(i));
    }
    size_t mark = Mark("owner_b");
    size_t zulMark = Mark("zulmgr");
    ASSERT_TRUE(Term("owner_b", names)) << Owner("owner_b").LastError();

    for (const auto& receiver : {std::make_pair("owner_b", mark), std::make_pair("zulmgr", zulMark)}) {
        const OwnerSession& owner = Owner(receiver.first);
        std::vector<std::vector<std::string>> records;
        std::vector<std::string> all;
        WaitUntil([&] {
            records = RecordsWithPrefix(owner, "gone_", receiver.second);
            all.clear();
            for (const std::vector<std::string>& record : records) {
                all.insert(all.end(), record.begin(), record.end());
            }
            return all.size() >= names.size();
        }, OWNER_WAIT_MS);
        ASSERT_EQ(names.size(), all.size()) << receiver.first;
        EXPECT_GE(records.size(), 2u) << receiver.first;
        for (const std::vector<std::string>& record : records) {
            EXPECT_LE(std::accumulate(record.begin(), record.end(), std::string()).size(), RECORD_PIECES_MAX);
        }
        EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), ShorterFirst)) << receiver.first;
        EXPECT_EQ(names.size(), std::set<std::string>(all.begin(), all.end()).size()) << receiver.first;
        EXPECT_EQ("gone_1#0#0#3#0#", all.front()) << receiver.first;
    }
}

TEST_F(ControlRun, RestartingNamingServiceGetsRunningAppsThenBaseServices)
{
    size_t before = Mark("zulmgr");
    pid_t snap = StartRunning("owner_b", "snap_app");
    ASSERT_GT(snap, 0) << Daemon().Log();
    // The change itself reaches zulmgr first; only what follows is the snapshot.
    ASSERT_TRUE(Await("zulmgr", "snap_app", RUNNING_NORMAL_START, before).has_value());
    size_t mark = Mark("zulmgr");
    ASSERT_TRUE(Owner("zulmgr").SendState(Message::BaseServiceStateType::RESTARTING));

    std::optional<Message::AppStateInfo> general = Await("zulmgr", "snap_app", RUNNING_NORMAL_START, mark);
    ASSERT_TRUE(general.has_value()) << Daemon().Log();
    EXPECT_EQ(static_cast<uint32_t>(snap), general->pid);
    long generalAt = ReportIndex(Owner("zulmgr"), "snap_app", RUNNING_NORMAL_START, mark);
    for (const std::string base : {"owner_a", "owner_b"}) {
        std::optional<Message::AppStateInfo> entry = Await("zulmgr", base, RUNNING_NORMAL_START, mark);
        ASSERT_TRUE(entry.has_value()) << base;
        EXPECT_EQ(Daemon().StartedPids(base), std::vector<pid_t>{static_cast<pid_t>(entry->pid)}) << base;
        EXPECT_LT(generalAt, ReportIndex(Owner("zulmgr"), base, RUNNING_NORMAL_START, mark)) << base;
    }
    ASSERT_TRUE(Barrier(Owner("zulmgr")));
    EXPECT_TRUE(EntriesOf(Owner("zulmgr"), "zulmgr", mark).empty()) << "the naming service isn't told of itself";
}

TEST_F(ControlRun, QueryTellsAliveAbsentAndStopped)
{
    pid_t pid = StartRunning("owner_a", "q_app");
    ASSERT_GT(pid, 0) << Daemon().Log();
    OwnerSession& owner = Owner("owner_a");
    EXPECT_EQ((Message::AppDetailStatusMap{{"q_app", 0}, {"q_none", 1}}), Query(owner, {"q_app", "q_none"}));

    ASSERT_EQ(0, kill(pid, SIGSTOP));
    ASSERT_TRUE(WaitUntil([&] { return ProcessState(pid) == 'T'; }, OWNER_WAIT_MS));
    EXPECT_EQ((Message::AppDetailStatusMap{{"q_app", 2}}), Query(owner, {"q_app"}));
    EXPECT_EQ(1u, Count("STAVIK : app=q_app, pid=" + std::to_string(pid) + ", stopped"));
    ASSERT_EQ(0, kill(pid, SIGCONT));
}

} // namespace
} // namespace Test
} // namespace Stavik
