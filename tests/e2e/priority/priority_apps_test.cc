// Priority applications of a quick start: started before the continue point,
// lowest number first, and told to the owners only once the naming service
// is ready, first through the snapshot that its INIT brings.
#include <gtest/gtest.h>
#include <signal.h>

#include "app/process_state.h"
#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const std::string PRIORITY_STARTED = "Start priority generalApp success";
const std::vector<std::string> START_ORDER = {"p_neg", "p_zero", "o_early", "p_a", "p_z", "p_dies", "p_b"};

AppEntry Priority(const std::string& name, int priority)
{
    AppEntry entry = ProbeApp(name);
    entry.startupPriority = priority;
    return entry;
}

// One quick-start daemon whose naming service "zulmgr" and owner "owner_p"
// are played by the test; the boot is taken up to the base start.
class PriorityRun : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sandbox_ = new Sandbox();
        const Sandbox& box = *sandbox_;
        std::string zulFile = box.WriteFile(
            "/etc/startup/zulmgr.yaml",
            AppsText({Priority("p_b", 5), Priority("p_z", 1), Priority("p_a", 1), Priority("p_zero", 0),
                      Priority("p_neg", -3), ProbeApp("p_none"), Priority("p_dies", 2)}));
        std::string ownerFile = box.WriteFile("/etc/startup/owner_p.yaml",
                                              AppsText({ProbeApp("o_late"), Priority("o_early", 1)}));
        std::string manifest = box.WriteFile(
            "/etc/base.yaml", AppsText({DummyOwner("zulmgr", zulFile), DummyOwner("owner_p", ownerFile)}));
        owners_ = new PlayedOwners(box, {"owner_p", "zulmgr"});
        daemon_ = new DaemonProcess(box, {manifest, "true"});
        setupError_ = owners_->Error();
        if (setupError_.empty()) {
            ContinueBoot();
        }
    }

    static void TearDownTestSuite()
    {
        delete daemon_;
        delete owners_;
        delete sandbox_;
    }

    void SetUp() override
    {
        ASSERT_EQ("", setupError_) << daemon_->Log();
    }

    // The log as it stood before SIGCONT is kept; then the boot goes on up to
    // the naming service's pipe, "owner_p" being started and ready before it.
    static void ContinueBoot()
    {
        if (daemon_->WaitForLine("InitPriorityApps start priority apps finish", OWNER_WAIT_MS).empty()) {
            setupError_ = "the priority start did not finish";
            return;
        }
        starts_ = StartLines(*daemon_, PRIORITY_STARTED);
        daemon_->Signal(SIGCONT);
        std::string waited = daemon_->WaitForLine("wait success for continue startup", OWNER_WAIT_MS);
        continueAt_ = daemon_->IndexOf(waited.empty() ? "wait for continue startup timeout!!" : waited);
        if (!ReportRunning((*owners_)["owner_p"]) || !(*owners_)["zulmgr"].WaitForDaemon(OWNER_WAIT_MS)) {
            setupError_ = "the base start did not reach zulmgr";
        }
    }

    static OwnerSession& Zul() { return (*owners_)["zulmgr"]; }

    static pid_t PidOf(const std::string& name)
    {
        for (const StartLine& start : starts_) {
            if (start.name == name) {
                return start.pid;
            }
        }
        return 0;
    }

    static Sandbox* sandbox_;
    static PlayedOwners* owners_;
    static DaemonProcess* daemon_;
    static std::string setupError_;
    static std::vector<StartLine> starts_;
    static long continueAt_;
};

Sandbox* PriorityRun::sandbox_ = nullptr;
PlayedOwners* PriorityRun::owners_ = nullptr;
DaemonProcess* PriorityRun::daemon_ = nullptr;
std::string PriorityRun::setupError_;
std::vector<StartLine> PriorityRun::starts_;
long PriorityRun::continueAt_ = -1;

TEST_F(PriorityRun, StartLowestNumberFirstThenByNameBeforeTheContinuePoint)
{
    EXPECT_EQ(START_ORDER, NamesOf(starts_)) << daemon_->Log();
    ASSERT_LE(0, continueAt_) << daemon_->Log();
    for (const StartLine& start : StartLines(*daemon_, PRIORITY_STARTED)) {
        EXPECT_LT(start.index, continueAt_) << start.name;
    }
    EXPECT_EQ(-1, daemon_->IndexOf("name=p_none"));
    EXPECT_EQ(-1, daemon_->IndexOf("name=o_late"));
}

TEST_F(PriorityRun, ChangesWaitForTheNamingServiceWhoseInitBringsTheSnapshot)
{
    // A priority application that dies while the naming service is up but not
    // yet ready is told to nobody.
    pid_t dies = PidOf("p_dies");
    ASSERT_GT(dies, 0);
    ASSERT_EQ(0, kill(dies, SIGKILL));
    ASSERT_TRUE(WaitForExactLine(*daemon_, "STAVIK : Process p_dies removed from the list of generalAppMap_",
                                 OWNER_WAIT_MS));
    ASSERT_TRUE(Barrier(Zul()));
    EXPECT_TRUE(EntriesOf(Zul(), "p_dies").empty());

    // INIT: the daemon itself first, then every priority application as it stands.
    size_t mark = Zul().EventCount();
    ASSERT_TRUE(Zul().SendState(Message::BaseServiceStateType::INIT));
    std::optional<Client::OwnerEvent> first = Zul().WaitFor(
        [](const Client::OwnerEvent& event) { return event.kind == Client::OwnerEvent::Kind::REPORT; },
        OWNER_WAIT_MS, mark);
    ASSERT_TRUE(first.has_value());
    ASSERT_EQ(1u, first->apps.size());
    EXPECT_EQ("STAVIK", first->apps[0].appName);
    EXPECT_EQ(static_cast<uint32_t>(daemon_->Pid()), first->apps[0].pid);
    EXPECT_EQ(static_cast<uint32_t>(RUNNING_NORMAL_START), first->apps[0].state);
    for (const std::string& name : START_ORDER) {
        ReportAppStateType state = name == "p_dies" ? TERMINATED_ABNORMAL_EXIT : RUNNING_NORMAL_START;
        std::optional<Message::AppStateInfo> entry = Zul().WaitForAppState(name, state, OWNER_WAIT_MS, mark);
        ASSERT_TRUE(entry.has_value()) << name << "\n" << daemon_->Log();
        EXPECT_EQ(static_cast<uint32_t>(PidOf(name)), entry->pid) << name;
    }
    EXPECT_TRUE(WaitForExactLine(*daemon_, "STAVIK ZULRegisterService resFile=/res/stavik/sys_server success.",
                                 OWNER_WAIT_MS));
    ASSERT_TRUE(ReportRunning(Zul()));
    ASSERT_NE("", daemon_->WaitForLine(" InitBaseApplication end", OWNER_WAIT_MS));

    // Once the owners are ready, the changes flow: to zulmgr always, to the owner its own.
    size_t ownerMark = (*owners_)["owner_p"].EventCount();
    mark = Zul().EventCount();
    ASSERT_EQ(0, kill(PidOf("p_b"), SIGKILL));
    ASSERT_EQ(0, kill(PidOf("o_early"), SIGKILL));
    for (const std::string name : {"p_b", "o_early"}) {
        std::optional<Message::AppStateInfo> dead =
            Zul().WaitForAppState(name, TERMINATED_ABNORMAL_EXIT, OWNER_WAIT_MS, mark);
        ASSERT_TRUE(dead.has_value()) << name << "\n" << daemon_->Log();
        EXPECT_EQ(static_cast<uint32_t>(REASON_NONE), dead->reason) << name;
    }
    EXPECT_TRUE((*owners_)["owner_p"]
                    .WaitForAppState("o_early", TERMINATED_ABNORMAL_EXIT, OWNER_WAIT_MS, ownerMark)
                    .has_value());
    EXPECT_TRUE(EntriesOf((*owners_)["owner_p"], "p_b", ownerMark).empty());
}

} // namespace
} // namespace Test
} // namespace Stavik
