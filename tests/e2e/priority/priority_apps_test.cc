// Priority applications of a quick start: started before the continue point,
// lowest number first, and told to the owners only once the naming service
// is ready, first through the snapshot that its INIT brings.
#include <gtest/gtest.h>
#include <signal.h>

#include "app/process_state.h"
#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const std::string PRIORITY_STARTED = "Start priority generalApp success";

AppEntry Priority(const std::string& name, int priority)
{
    return ProbeApp(name).With("startup_priority", std::to_string(priority));
}

TEST(PriorityRun, StartedInOrderBeforeTheContinuePointAndToldOnceTheNamingServiceIsReady)
{
    Sandbox box;
    std::string zulFile = box.WriteFile("/etc/startup/zulmgr.yaml",
                                        AppsText({Priority("p_b", 5), Priority("p_z", 1), Priority("p_a", 1),
                                                  Priority("p_zero", 0), Priority("p_neg", -3), ProbeApp("p_none"),
                                                  Priority("p_dies", 2)}));
    std::string ownerFile = box.WriteFile("/etc/startup/owner_p.yaml", AppsText({ProbeApp("o_late"), Priority("o_early", 1)}));
    PlayedOwners owners(box, {"owner_p", "zulmgr"});
    ASSERT_EQ("", owners.Error());
    OwnerSession& zul = owners["zulmgr"];
    DaemonProcess daemon(box, {box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr", zulFile),
                                                                          DummyOwner("owner_p", ownerFile)})),
                               "true"});
    ASSERT_NE("", daemon.WaitForLine("InitPriorityApps start priority apps finish", OWNER_WAIT_MS)) << daemon.Log();

    // Lowest number first, then by name, all before the continue point.
    std::map<std::string, pid_t> pids;
    std::vector<std::string> names;
    for (const StartLine& start : daemon.Starts(PRIORITY_STARTED)) {
        names.push_back(start.name);
        pids[start.name] = start.pid;
    }
    const std::vector<std::string> order = {"p_neg", "p_zero", "o_early", "p_a", "p_z", "p_dies", "p_b"};
    EXPECT_EQ(order, names) << daemon.Log();
    // The marker file ends the wait as the continue signal does.
    box.WriteFile("/sys/fs/cgroup/notify_sk_done", "");
    ASSERT_NE("", daemon.WaitForLine("wait success for continue startup", OWNER_WAIT_MS)) << daemon.Log();
    EXPECT_EQ(order.size(), daemon.Starts(PRIORITY_STARTED).size());
    EXPECT_EQ(-1, daemon.IndexOf("name=p_none"));
    EXPECT_EQ(-1, daemon.IndexOf("name=o_late"));
    ASSERT_TRUE(ReportRunning(owners["owner_p"]) && zul.WaitForDaemon(OWNER_WAIT_MS)) << daemon.Log();

    // A priority application that dies while the naming service is up but not
    // yet ready is told to nobody.
    ASSERT_EQ(0, kill(pids["p_dies"], SIGKILL));
    ASSERT_TRUE(daemon.WaitForExact("STAVIK : Process p_dies removed from the list of generalAppMap_")) << daemon.Log();
    ASSERT_TRUE(Barrier(zul));
    EXPECT_TRUE(EntriesOf(zul, "p_dies").empty());

    // INIT: the daemon itself first, then every priority application as it stands.
    size_t mark = zul.EventCount();
    ASSERT_TRUE(zul.SendState(Message::BaseServiceStateType::INIT));
    std::optional<Client::OwnerEvent> first = zul.WaitFor(
        [](const Client::OwnerEvent& event) { return event.kind == Client::OwnerEvent::Kind::REPORT; },
        OWNER_WAIT_MS, mark);
    ASSERT_TRUE(first.has_value() && first->apps.size() == 1);
    EXPECT_EQ("STAVIK", first->apps[0].appName);
    EXPECT_EQ(static_cast<uint32_t>(daemon.Pid()), first->apps[0].pid);
    EXPECT_EQ(static_cast<uint32_t>(RUNNING_NORMAL_START), first->apps[0].state);
    for (const std::string& name : order) {
        ReportAppStateType state = name == "p_dies" ? TERMINATED_ABNORMAL_EXIT : RUNNING_NORMAL_START;
        std::optional<Message::AppStateInfo> entry = zul.WaitForAppState(name, state, OWNER_WAIT_MS, mark);
        ASSERT_TRUE(entry.has_value()) << name << "\n" << daemon.Log();
        EXPECT_EQ(static_cast<uint32_t>(pids[name]), entry->pid) << name;
    }
    EXPECT_TRUE(daemon.WaitForExact("STAVIK ZULRegisterService resFile=/res/stavik/sys_server success."));
}

} // namespace
} // namespace Test
} // namespace Stavik
