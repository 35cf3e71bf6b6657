// State reports of base services and the wait of the base start on them.
#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

const uint32_t REPORT_INIT = 0;
const uint32_t REPORT_RUNNING = 2;
const uint32_t REPORT_TERMINATING = 3;

class BaseStateReport : public DaemonSteps {
protected:
    // Runs InitBaseApp on a thread of its own, as the main thread would.
    void StartWaiting(const std::string& name)
    {
        waiter_ = std::thread([this, name] {
            daemon_->InitBaseApp(name);
            waitEnded_ = true;
        });
    }

    bool IsWaiting(const std::string& name)
    {
        std::string line = "STAVIK: waiting for baseApp=" + name + " reported state, RUNNING OR TERMINATING.";
        return ::Stavik::Test::WaitUntil([&line] { return LogCapture::Contains(line); });
    }

    // A wait that doesn't end would keep the program from ever finishing.
    void ExpectWaitEnds()
    {
        if (!::Stavik::Test::WaitUntil([this] { return waitEnded_.load(); })) {
            ADD_FAILURE() << "InitBaseApp did not end";
            std::abort();
        }
        waiter_.join();
    }

    std::thread waiter_;
    std::atomic<bool> waitEnded_{false};
};

TEST_F(BaseStateReport, WaitEndsOnRunningReportAfterAnEarlierElementWasErased)
{
    AddBase(Base(Data("earlier"), 10, TERMINATED));
    App::BaseAppInfo target = Base(Data("target"), 11, STARTING);
    target.isReporting_ = true;
    AddBase(target);
    StartWaiting("target");
    ASSERT_TRUE(IsWaiting("target"));
    {
        // What RemoveFinishedApps does on the check thread: the target moves.
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        executedBaseApp_.erase(executedBaseApp_.begin());
    }
    daemon_->UpdateBaseAppState("target", REPORT_RUNNING);
    ExpectWaitEnds();
    EXPECT_EQ(LOG_INFO, LevelOf("InitBaseApp:target success, report RUNNING!"));
    EXPECT_TRUE(LogCapture::Contains("SK receive BASESERVICE_STATE_REPORT msg from target report state=RUNNING"));
    EXPECT_TRUE(BaseCopy("target").isServerReady_);
}

TEST_F(BaseStateReport, WaitedAppErasedMeanwhileEndsTheWaitAsTerminatedOnTheNextReport)
{
    AddBase(Base(Data("target"), 11, STARTING));
    AddBase(Base(Data("neighbour"), 12, RUNNING));
    StartWaiting("target");
    ASSERT_TRUE(IsWaiting("target"));
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        executedBaseApp_.erase(executedBaseApp_.begin());
    }
    // The death of the waited application alone wakes nobody; another report does.
    daemon_->UpdateBaseAppState("neighbour", REPORT_TERMINATING);
    ExpectWaitEnds();
    EXPECT_EQ(LOG_WARNING, LevelOf("InitBaseApp:target has been 4!"));
}

TEST_F(BaseStateReport, ReportBeforeTheWaitIsNotLost)
{
    AddBase(Base(Data("target"), 11, STARTING));
    daemon_->UpdateBaseAppState("target", REPORT_TERMINATING);
    StartWaiting("target");
    ExpectWaitEnds();
    EXPECT_EQ(LOG_WARNING, LevelOf("InitBaseApp:target report TERMINATING!"));
    EXPECT_FALSE(LogCapture::Contains("STAVIK: waiting for baseApp=target"));
}

TEST_F(BaseStateReport, ReportsMoveStatesExceptThatTerminatingNeverRevivesTheDead)
{
    AddBase(Base(Data("dead"), 10, TERMINATED));
    AddBase(Base(Data("zulmgr"), 11, STARTING));
    AddBase(Base(Data("other"), 12, STARTING));

    daemon_->UpdateBaseAppState("dead", REPORT_TERMINATING);
    EXPECT_EQ(TERMINATED, BaseCopy("dead").state_);
    daemon_->UpdateBaseAppState("other", REPORT_TERMINATING);
    EXPECT_EQ(TERMINATING, BaseCopy("other").state_);
    daemon_->UpdateBaseAppState("dead", REPORT_RUNNING);
    EXPECT_EQ(RUNNING, BaseCopy("dead").state_);

    // INIT only counts from the naming service, and only marks it ready.
    daemon_->UpdateBaseAppState("other", REPORT_INIT);
    EXPECT_FALSE(BaseCopy("other").isServerReady_);
    daemon_->UpdateBaseAppState("zulmgr", REPORT_INIT);
    EXPECT_TRUE(BaseCopy("zulmgr").isServerReady_);
    EXPECT_EQ(STARTING, BaseCopy("zulmgr").state_);
    EXPECT_TRUE(LogCapture::Contains("SK receive BASESERVICE_STATE_REPORT msg from zulmgr report state=INIT"));

    daemon_->UpdateBaseAppState("ghost", REPORT_RUNNING);
    EXPECT_EQ(LOG_ERR, LevelOf("PUpdateBaseServerReadyInfo failed, not find base app=ghost"));
    EXPECT_EQ(1u, LogCapture::Count("STAVIK : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"));
    daemon_->UpdateBaseAppState("ghost", REPORT_TERMINATING);
    EXPECT_EQ(2u, LogCapture::Count("STAVIK : UpdateBaseAppState failed, not find app=ghost from executedBaseApp"));
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
