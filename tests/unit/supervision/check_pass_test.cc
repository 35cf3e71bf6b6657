// The steps of a check pass: dead base services, changes of general
// applications, removal of finished records, the wait thread's choice of
// the record that a reaped pid belongs to; the base start's wait for a
// service's state report, against the check thread erasing records and
// reports that come early.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "channel/message.h"
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

const int32_t EXIT_CODE_1 = 0x0100;
const int32_t KILLED_BY_SIGSEGV = SIGSEGV;
const int32_t PID = 4242;
const uint64_t NOW = 1000;

using CheckPass = DaemonSteps;

// Deaths without a policy and with on-forever are checked through the real
// daemon in tests/e2e/supervision.
TEST_F(CheckPass, FailedRestartOfABaseAppIsKeptAndTriedAgainOnTheNextPass)
{
    ManifestData data = Data("broken", "on-forever");
    data.binPath = "/nonexistent/stavik-test-bin";
    App::BaseAppInfo broken = Base(data, 4244, RUNNING);
    broken.SetExitStatus(EXIT_CODE_1);
    AddBase(broken);
    daemon_->CheckBaseApps();

    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK: CheckThread : owner=broken, pid=4244, state=TERMINATED will restart now"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK : Restarting process : broken failed "));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK: CheckThread : owner=broken, pid=4244, state=TERMINATED restart failed"));

    daemon_->RemoveFinishedApps();
    EXPECT_EQ(TERMINATED, BaseCopy("broken").state_);
    LogCapture::Begin();
    daemon_->CheckBaseApps();
    EXPECT_TRUE(LogCapture::Contains("STAVIK : Process broken got unexpected TERMINATED state"));
    EXPECT_TRUE(LogCapture::Contains("owner=broken, pid=4244, state=TERMINATED will restart now"));
}

TEST_F(CheckPass, GeneralChangesGoToTheOwnerOrForPriorityAppsToAReadyNamingService)
{
    AddGeneral("plain", "ownerA", 5001, STARTING);
    auto early = AddGeneral("early", "ownerB", 5002, STARTING);
    early->isStartedAsPriority_ = true;
    auto crashed = AddGeneral("crashed", "ownerA", 5003, RUNNING);
    crashed->SetExitStatus(KILLED_BY_SIGSEGV);
    AddGeneral("idle", "ownerA", 5004, RUNNING);

    std::vector<Message::AppStateChange> changes;
    daemon_->CollectGeneralAppChanges(changes);
    ASSERT_EQ(2u, changes.size());
    std::map<std::string, Message::AppStateChange> byName;
    for (const Message::AppStateChange& change : changes) {
        byName[change.info.appName] = change;
    }
    EXPECT_EQ("ownerA", byName["plain"].owner);
    EXPECT_EQ(5001u, byName["plain"].info.pid);
    EXPECT_EQ(static_cast<uint32_t>(RUNNING_NORMAL_START), byName["plain"].info.state);
    EXPECT_EQ(static_cast<uint32_t>(TERMINATED_ABNORMAL_EXIT), byName["crashed"].info.state);
    EXPECT_EQ(static_cast<uint32_t>(REASON_COREDUMP), byName["crashed"].info.reason);
    // The priority application changed too, but with no naming service up it is told to nobody.
    EXPECT_EQ(RUNNING, early->state_);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK: CheckThread : generalAppName=early, pid=5002, state=RUNNING get statechange"));
    EXPECT_FALSE(LogCapture::Contains("generalAppName=idle"));

    App::BaseAppInfo zul = Base(Data("zulmgr"), 20, RUNNING);
    zul.isServerReady_ = true;
    AddBase(zul);
    early->state_ = STARTING;
    daemon_->RemoveFinishedApps();
    changes.clear();
    daemon_->CollectGeneralAppChanges(changes);
    ASSERT_EQ(1u, changes.size());
    EXPECT_EQ("early", changes[0].info.appName);
    EXPECT_EQ("zulmgr", changes[0].owner);
}

TEST_F(CheckPass, FinishedRecordsGoUnlessTheirBasePolicyIsResident)
{
    AddBase(Base(Data("gone", "no"), 10, TERMINATED));
    AddBase(Base(Data("live"), 11, RUNNING));
    AddBase(Base(Data("gone-too"), 12, TERMINATED));
    AddBase(Base(Data("resident", "on-failure"), 13, TERMINATED));
    AddGeneral("finished", "owner", 20, TERMINATED);
    AddGeneral("working", "owner", 21, RUNNING);
    daemon_->RemoveFinishedApps();

    ASSERT_EQ(2u, executedBaseApp_.size());
    EXPECT_EQ("live", executedBaseApp_[0].appName_);
    EXPECT_EQ("resident", executedBaseApp_[1].appName_);
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : Process gone removed from the list of executedBaseApp_"));
    EXPECT_EQ(1u, generalAppMap_.count("working"));
    EXPECT_EQ(0u, generalAppMap_.count("finished"));
    EXPECT_EQ(LOG_INFO, LevelOf("STAVIK : Process finished removed from the list of generalAppMap_"));
}

TEST_F(CheckPass, OldestLiveRecordAcrossBothListsStartedBeforeTheReapGetsTheStatus)
{
    // The base record is older: it is the dead one, the general one a reuse.
    auto general = AddGeneral("gen", "owner", PID, RUNNING, 200);
    AddBase(Base(Data("base"), PID, RUNNING, 100));
    daemon_->DeliverExitStatus(PID, EXIT_CODE_1, NOW);
    EXPECT_TRUE(BaseCopy("base").hasExitStatus_);
    EXPECT_EQ(EXIT_CODE_1, BaseCopy("base").exitStatus_);
    EXPECT_FALSE(general->hasExitStatus_);

    // Equal start times: the general record wins, the comparison is strict.
    ClearTables();
    general = AddGeneral("gen", "owner", PID, RUNNING, 100);
    AddBase(Base(Data("base"), PID, RUNNING, 100));
    daemon_->DeliverExitStatus(PID, EXIT_CODE_1, NOW);
    EXPECT_TRUE(general->hasExitStatus_);
    EXPECT_FALSE(BaseCopy("base").hasExitStatus_);

    // A dead record with the pid doesn't count, however old.
    ClearTables();
    AddBase(Base(Data("dead"), PID, TERMINATED, 10));
    AddBase(Base(Data("live"), PID, STARTING, 300));
    daemon_->DeliverExitStatus(PID, EXIT_CODE_1, NOW);
    EXPECT_FALSE(BaseCopy("dead").hasExitStatus_);
    EXPECT_TRUE(BaseCopy("live").hasExitStatus_);
    EXPECT_FALSE(LogCapture::Contains("can not find app"));

    // A record started at the reap is not the dead one: the status is dropped.
    ClearTables();
    general = AddGeneral("gen", "owner", PID, RUNNING, NOW);
    AddBase(Base(Data("base"), PID, RUNNING, NOW + 1));
    AddBase(Base(Data("other"), PID + 1, RUNNING, 1));
    daemon_->DeliverExitStatus(PID, EXIT_CODE_1, NOW);
    EXPECT_FALSE(general->hasExitStatus_);
    EXPECT_FALSE(BaseCopy("base").hasExitStatus_);
    EXPECT_FALSE(BaseCopy("other").hasExitStatus_);
    EXPECT_EQ(LOG_WARNING, LevelOf("STAVIK: can not find app, pid=4242"));
}

using Report = Message::BaseServiceStateType;

TEST_F(DaemonSteps, BaseStartWaitEndsOnTheReportThatSettlesItsServiceWhateverMovedMeanwhile)
{
    struct Case {
        const char* erased; // during the wait; nullptr: the report comes before the wait
        const char* reporter;
        Report report;
        int level;
        std::string line;
    };
    const Case cases[] = {
        // The waited record moves to the front; it is looked up again by name.
        {"earlier", "target", Report::RUNNING, LOG_INFO, "InitBaseApp:target success, report RUNNING!"},
        // Its own death wakes nobody; the next report of anyone ends the wait.
        {"target", "neighbour", Report::TERMINATING, LOG_WARNING, "InitBaseApp:target has been 4!"},
        {nullptr, "target", Report::TERMINATING, LOG_WARNING, "InitBaseApp:target report TERMINATING!"},
    };
    const std::string waiting = "STAVIK: waiting for baseApp=target reported state, RUNNING OR TERMINATING.";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        ClearTables();
        AddBase(Base(Data("earlier"), 10, TERMINATED));
        AddBase(Base(Data("target"), 11, STARTING));
        // The neighbour is not settled: a wait that kept its element by place
        // would find it there after an erase and not end as it should.
        AddBase(Base(Data("neighbour"), 12, STARTING));
        LogCapture::Begin();
        if (c.erased == nullptr) {
            daemon_->UpdateBaseAppState(c.reporter, static_cast<uint32_t>(c.report));
        }
        std::atomic<bool> ended{false};
        std::thread waiter([this, &ended] {
            daemon_->InitBaseApp("target");
            ended = true;
        });
        if (c.erased != nullptr) {
            EXPECT_TRUE(::Stavik::Test::WaitUntil([&] { return LogCapture::Contains(waiting); }));
            {
                // What the check thread's removal of finished records does.
                std::lock_guard<std::mutex> lock(baseAppMutex_);
                auto isErased = [&c](const App::BaseAppInfo& app) { return app.appName_ == c.erased; };
                executedBaseApp_.erase(std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(), isErased));
            }
            daemon_->UpdateBaseAppState(c.reporter, static_cast<uint32_t>(c.report));
        }
        if (!::Stavik::Test::WaitUntil([&ended] { return ended.load(); })) {
            ADD_FAILURE() << "InitBaseApp did not end";
            std::abort(); // a waiter that never ends keeps the program from finishing
        }
        waiter.join();
        EXPECT_EQ(c.level, LevelOf(c.line));
        EXPECT_EQ(c.erased != nullptr, LogCapture::Contains(waiting));
        EXPECT_EQ(c.report == Report::RUNNING, BaseCopy("target").isServerReady_);
    }
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
