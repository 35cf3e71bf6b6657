// What a check pass tells beside the owners' state records: the fault nodes,
// the heart-beat watches, the naming service and the kill manager.
#include <signal.h>
#include <sys/wait.h>

#include "boot/kernel_calls.h"
#include "boot/kill_mgr.h"
#include "heart_beat.h"
#include "supervision/sensor_node_event_reporter.h"
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

const int32_t EXIT_CODE_1 = 0x0100;

class CheckReports : public DaemonSteps {
protected:
    void SetUp() override
    {
        DaemonSteps::SetUp();
        setenv("HAL_STATE_DIR", sandbox_.Path("/hal").c_str(), 1);
        savedCalls_ = CurrentKernelCalls();
    }

    void TearDown() override
    {
        CurrentKernelCalls() = savedCalls_;
        BootContext::Instance().killMgrFd_ = -1;
        BootContext::Instance().isKillMgrWait_ = 0;
        SensorNodeEventReporter::Instance().UnregisterAllSensorNode();
        DisableAllCheckHeartBeat();
        unsetenv("HAL_STATE_DIR");
        DaemonSteps::TearDown();
    }

    static void Node(const std::string& name, uint32_t lastEvent)
    {
        ASSERT_TRUE(SensorNodeEventReporter::Instance().RegisterSensorNode({name, 0x0617, 0xD0, 1}));
        SensorNodeEventReporter::Instance().ReportEvent(name, lastEvent);
    }

    static size_t Events(const std::string& name, uint32_t event)
    {
        return LogCapture::Count("ReportEvent success.(nodeName=" + name + ",id=0,fault=1,event=" +
                                 std::to_string(event) + ")");
    }

    // Whether a watch was there; it is not afterwards.
    static bool Watched(const std::string& name) { return UnregisterCheckHeartBeat(name.c_str(), name.size()) == 0; }

    KernelCalls savedCalls_{};
};

TEST_F(CheckReports, BaseEndIsToldAndUnwatchedAndItsRestartIsToldWellOrWatched)
{
    for (const char* name : {"plain", "watched", "starter"}) {
        Node(name, std::string(name) == "starter" ? SENSOR_EVENT_FAULT : SENSOR_EVENT_WELL);
    }
    ASSERT_EQ(0, RegisterCheckHeartBeat("plain", 5, 0, [](const char*, size_t, int32_t, uint32_t) { return 0u; }));
    for (const char* name : {"plain", "watched"}) {
        ManifestData data = Data(name, "on-forever");
        data.binPath = "/bin/sleep";
        data.arguments = {"30"};
        App::BaseAppInfo app = Base(data, 4301, RUNNING);
        app.isReporting_ = std::string(name) == "watched";
        app.SetExitStatus(EXIT_CODE_1);
        AddBase(app);
    }
    AddBase(Base(Data("starter"), 4302, STARTING));
    LogCapture::Begin();
    daemon_->CheckBaseApps();

    for (const char* name : {"plain", "watched"}) {
        SCOPED_TRACE(name);
        App::BaseAppInfo now = BaseCopy(name);
        ASSERT_GT(now.pid_, 0);
        ASSERT_NE(4301, now.pid_);
        kill(now.pid_, SIGKILL);
        waitpid(now.pid_, nullptr, 0);
        EXPECT_EQ(1u, Events(name, SENSOR_EVENT_FAULT));
        const std::string report = std::string("STAVIK : report ") + name + "'s state: ";
        EXPECT_EQ(1u, LogCapture::Count(report + std::to_string(TERMINATED_ABNORMAL_EXIT) + " to zulmgr"));
        EXPECT_EQ(1u, LogCapture::Count(report + std::to_string(RUNNING_NORMAL_START) + " to zulmgr"));
    }
    // A service that reports its health gets a new watch instead of a well event.
    EXPECT_EQ(1u, Events("plain", SENSOR_EVENT_WELL));
    EXPECT_FALSE(Watched("plain"));
    EXPECT_EQ(0u, Events("watched", SENSOR_EVENT_WELL));
    EXPECT_TRUE(Watched("watched"));
    EXPECT_EQ(1u, Events("starter", SENSOR_EVENT_WELL));
    // Both have their pipe again.
    EXPECT_EQ(2u, LogCapture::Count(" restart success"));
}

// The kill manager hears of every start and end of its type of application;
// while its wait is under way the ends it causes are told as normal ones.
TEST_F(CheckReports, GeneralChangesTellTheFaultNodesAndTheKillManager)
{
    CurrentKernelCalls().ioctl = [](int, unsigned long, unsigned long) { return 0; };
    BootContext::Instance().killMgrFd_ = 99;
    struct Case {
        const char* name;
        uint8_t killMgrWait;
        int32_t processType;
        ProcessState state;
        int32_t exitStatus;  // -1: none
        ReportAppStateType told;
        int32_t task;  // -1: none
        int32_t event;
    };
    const Case cases[] = {
        {"km_wait_dies", 1, KILL_MGR_PROCESS_TYPE, RUNNING, EXIT_CODE_1, TERMINATED_NORMAL_EXIT, 4, 1},
        {"km_dies", 0, KILL_MGR_PROCESS_TYPE, RUNNING, EXIT_CODE_1, TERMINATED_ABNORMAL_EXIT, 4, 1},
        {"km_ends", 0, KILL_MGR_PROCESS_TYPE, TERMINATING, 0, TERMINATED_NORMAL_EXIT, 4, -1},
        {"km_wait_starts", 1, KILL_MGR_PROCESS_TYPE, STARTING, -1, RUNNING_NORMAL_START, 3, 0},
        {"plain_dies", 1, 0, RUNNING, EXIT_CODE_1, TERMINATED_ABNORMAL_EXIT, -1, 1},
        {"km_slow", 0, KILL_MGR_PROCESS_TYPE, TERMINATING, -1, RUNNING_ABNORMAL_TERM_TIMEOUT, -1, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClearTables();
        // A well event shows only after a fault, and the other way round.
        Node(c.name, c.event == 1 ? SENSOR_EVENT_WELL : SENSOR_EVENT_FAULT);
        BootContext::Instance().isKillMgrWait_ = c.killMgrWait;
        auto app = AddGeneral(c.name, "owner", 4400, c.state);
        app->processType_ = c.processType;
        app->termTimeOut_ = 0;
        app->isForceTerm_ = false;
        if (c.exitStatus >= 0) {
            app->SetExitStatus(c.exitStatus);
        }
        LogCapture::Begin();
        std::vector<Message::AppStateChange> changes;
        daemon_->CollectGeneralAppChanges(changes);
        ASSERT_EQ(1u, changes.size());
        EXPECT_EQ(static_cast<uint32_t>(c.told), changes[0].info.state);
        if (c.told == TERMINATED_NORMAL_EXIT) {
            EXPECT_EQ(static_cast<uint32_t>(REASON_NONE), changes[0].info.reason);
        }
        const std::string task = std::string("ModifyKillMgr success. info:[") + c.name + ", 4400, ";
        EXPECT_EQ(c.task < 0 ? 0u : 1u, LogCapture::Count(task));
        EXPECT_EQ(c.task < 0 ? 0u : 1u, LogCapture::Count(task + std::to_string(c.task) + "]"));
        EXPECT_EQ(c.event == 1 ? 1u : 0u, Events(c.name, SENSOR_EVENT_FAULT));
        EXPECT_EQ(c.event == 0 ? 1u : 0u, Events(c.name, SENSOR_EVENT_WELL));
    }
}

// The old process of a kill-manager application is over before the new one
// starts; the failed start ends the application, which is told once more.
TEST_F(CheckReports, ARestartOfAKillManagerApplicationEndsTheOldTaskFirst)
{
    CurrentKernelCalls().ioctl = [](int, unsigned long, unsigned long) { return 0; };
    BootContext::Instance().killMgrFd_ = 99;
    auto app = AddGeneral("km_restart", "owner", 4500, RESTARTING);
    app->processType_ = KILL_MGR_PROCESS_TYPE;
    app->SetExitStatus(EXIT_CODE_1);
    std::vector<Message::AppStateChange> changes;
    daemon_->CollectGeneralAppChanges(changes);
    EXPECT_EQ(2u, LogCapture::Count("ModifyKillMgr success. info:[km_restart, 4500, 4]"));
    ASSERT_EQ(1u, changes.size());
    EXPECT_EQ(static_cast<uint32_t>(TERMINATED_ABNORMAL_EXIT), changes[0].info.state);
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
