// The base start's wait for a service's state report, against the check
// thread erasing records and reports that come early.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "channel/message.h"
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

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
