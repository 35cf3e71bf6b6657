// The fault node table and the heart-beat notification, in process; the node
// files are those of the host platform library.
#include "supervision/heart_beat_notify.h"
#include "supervision/sensor_node_event_reporter.h"
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

const std::string NODE = "nineteen_bytes_node";

std::string NodeValue(const ::Stavik::Test::Sandbox& sandbox, const std::string& key)
{
    std::string text = ::Stavik::Test::ReadWholeFile(sandbox.Path("/hal/sensor_" + NODE + "_dev0"));
    size_t at = text.find(key + "=");
    return at == std::string::npos ? "" : text.substr(at + key.size() + 1, text.find('\n', at) - at - key.size() - 1);
}

TEST_F(DaemonSteps, AnEventReachesTheNodeOnlyWhenItChangesAndTheFirstWellReportNever)
{
    setenv("HAL_STATE_DIR", sandbox_.Path("/hal").c_str(), 1);
    SensorNodeEventReporter reporter;
    EXPECT_FALSE(reporter.RegisterSensorNode({"twenty_bytes_node_xx", 0x0602, 0x27, 1}));
    EXPECT_TRUE(LogCapture::Contains(
        "SensorNodeEventReporter RegisterSensorNode Copy sensor node name for twenty_bytes_node_xx failed."));
    // Scope above 0: device 0 only. The memory node's numbers make a fault.
    ASSERT_TRUE(reporter.RegisterSensorNode({NODE, 0x0617, 0xD0, 1}));
    EXPECT_TRUE(reporter.RegisterSensorNode({NODE, 0x0617, 0xD0, 1}));
    EXPECT_EQ(1u, LogCapture::Count("RegisterSensorNode for " + NODE + " finish, nodeType=0x617, sensorType=0xd0, "
                                    "reportIds size=1"));
    const std::vector<std::pair<uint32_t, std::string>> steps = {{0, "0"}, {1, "1"}, {1, "1"}, {0, "2"}};
    for (const auto& step : steps) {
        reporter.ReportEvent(NODE, step.first);
        EXPECT_EQ(step.second, NodeValue(sandbox_, "updates")) << "event " << step.first;
    }
    EXPECT_EQ(1u, LogCapture::Count("ReportEvent success.(nodeName=" + NODE + ",id=0,fault=1,event=1)"));
    reporter.ReportEvent("not_a_node", 1);
    EXPECT_FALSE(LogCapture::Contains("not_a_node"));
    EXPECT_TRUE(reporter.UnregisterAllSensorNode());
    EXPECT_FALSE(sandbox_.Exists("/hal/sensor_" + NODE + "_dev0"));
    unsetenv("HAL_STATE_DIR");
}

TEST_F(DaemonSteps, HeartBeatNotifyHandlesKnownBaseAppsAndEndsWithTheDaemon)
{
    AddBase(Base(Data("proc_launcher"), 7, RUNNING));
    const char* name = "proc_launcher";
    EXPECT_EQ(0u, HeartBeatNotify(nullptr, 0, 7, 1));
    EXPECT_TRUE(LogCapture::Contains("Process heart beat notify, app name is invalid. (nameLen=0)"));
    EXPECT_EQ(0u, HeartBeatNotify("gone", 4, 8, 1));
    EXPECT_TRUE(LogCapture::Contains("Process heart beat notify, not find base app=gone"));
    EXPECT_EQ(0u, HeartBeatNotify(name, strlen(name), 7, 2));
    EXPECT_EQ(LOG_WARNING, LevelOf("App status is invalid. (status=2)"));
    EXPECT_EQ(1u, HeartBeatNotify(name, strlen(name), 7, 1));
    EXPECT_TRUE(LogCapture::Contains("Process heart beat notify. (app=proc_launcher,pid=7,status=lost)"));
    EXPECT_EQ(1u, HeartBeatNotify(name, strlen(name), 7, 0));
    EXPECT_TRUE(LogCapture::Contains("Process heart beat notify. (app=proc_launcher,pid=7,status=recovery)"));

    // A notification late for the stop finds the gate shut, not a destroyed daemon.
    daemon_.reset();
    size_t lines = LogCapture::Lines().size();
    EXPECT_EQ(0u, HeartBeatNotify(name, strlen(name), 7, 1));
    EXPECT_EQ(lines, LogCapture::Lines().size());
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
