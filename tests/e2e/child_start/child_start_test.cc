// Child start and reaping through the real daemon: duplicate names, what a
// child inherits, and the stop after an exception that leaves Run while threads, pipes and children live.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

std::string LinkOf(const std::string& path)
{
    char target[PATH_MAX] = {0};
    return readlink(path.c_str(), target, sizeof(target) - 1) > 0 ? target : "";
}

TEST(ChildStartRun, FirstOfDuplicateNamesWinsAndChildrenKeepOnlyThePipesWriteEnd)
{
    Sandbox box;
    AppEntry firstPrio = ProbeApp("dup_prio", {"--out", box.Path("/out/prio_first")}).With("startup_priority", "1");
    AppEntry secondPrio = ProbeApp("dup_prio", {"--out", box.Path("/out/prio_second")}).With("startup_priority", "1");
    std::string ownerFile = box.WriteFile("/etc/startup/owner_c.yaml", AppsText({firstPrio}));
    AppEntry second = ProbeApp("second");
    second.startupEntryPath = box.WriteFile("/etc/startup/second.yaml", AppsText({secondPrio}));
    std::string manifest = box.WriteFile(
        "/etc/base.yaml", AppsText({ProbeApp("dup_base", {"--out", box.Path("/out/base_first")}),
                                    DummyOwner("owner_c", ownerFile), second,
                                    ProbeApp("dup_base", {"--out", box.Path("/out/base_second")})}));
    PlayedOwners owners(box, {"owner_c"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {manifest});
    OwnerSession& owner = owners["owner_c"];
    ASSERT_TRUE(ReportRunning(owner)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("InitBaseApplication end", OWNER_WAIT_MS)) << daemon.Log();

    // One process each, started from the first entry; one line for each later one.
    EXPECT_EQ(1u, daemon.StartedPids("dup_base").size()) << daemon.Log();
    EXPECT_EQ(1u, daemon.Starts("Start priority generalApp success").size()) << daemon.Log();
    std::map<std::string, std::string> record = AwaitProbeRecord(box.Path("/out/base_first"));
    EXPECT_FALSE(AwaitProbeRecord(box.Path("/out/prio_first")).empty());
    EXPECT_FALSE(box.Exists("/out/base_second") || box.Exists("/out/prio_second"));
    EXPECT_EQ(1u, daemon.CountExact("STAVIK : ParseYamlFile : " + manifest +
                                    " names appName=dup_base again, the later entry is ignored"));
    EXPECT_EQ(1u, daemon.CountExact("stavik-daemon " + second.startupEntryPath +
                                    " names priority app name=dup_prio again, the later entry is ignored"));

    // A child has what the daemon was given (its standard streams, whatever
    // the test's runner passed on) and the pipe's write end; the read end and
    // every other descriptor the daemon opened stay behind.
    std::string pipeLine = daemon.WaitForLine("creat anonymous pipe success");
    int readEnd = -1;
    int writeEnd = -1;
    size_t at = pipeLine.find("read pipe fd=");
    ASSERT_TRUE(at != std::string::npos &&
                sscanf(pipeLine.c_str() + at, "read pipe fd=%d, write pipe fd=%d", &readEnd, &writeEnd) == 2)
        << pipeLine;
    std::string pipe = LinkOf("/proc/" + std::to_string(daemon.Pid()) + "/fd/" + std::to_string(readEnd));
    ASSERT_EQ(0u, pipe.find("pipe:[")) << pipe;
    EXPECT_EQ(pipe, record["fd." + std::to_string(writeEnd)]);
    for (const auto& entry : record) {
        std::string fd = entry.first.compare(0, 3, "fd.") == 0 ? entry.first.substr(3) : "";
        bool passedOn = fd == "0" || fd == "1" || fd == "2" || LinkOf("/proc/self/fd/" + fd) == entry.second;
        EXPECT_TRUE(fd.empty() || passedOn || fd == std::to_string(writeEnd) || fd == record["env.TUBIX_LISTEN_FD"])
            << entry.first << "=" << entry.second;
    }

    EXPECT_EQ(0u, daemon.CountLines("can not find app"));
}

// The manifest library throws once the owner's level has started: the
// exception leaves Run while the threads run, the owner's pipe is open and
// busy with queries, and children live. The daemon ends with 1 in bounded
// time, telling the exception under its own ident before the log closes.
TEST(StopPath, ExceptionFromRunEndsTheDaemonWithOneInBoundedTime)
{
    Sandbox box;
    AppEntry late = ProbeApp("late");
    late.depends = {"owner_s"};
    std::string manifest = box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("owner_s"), ProbeApp("worker"), late}));
    PlayedOwners owners(box, {"owner_s"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {manifest}, {{"HOST_MANIFEST_THROW_ON_POP", "owner_s"}});
    OwnerSession& owner = owners["owner_s"];
    ASSERT_TRUE(owner.WaitForDaemon(OWNER_WAIT_MS)) << daemon.Log();
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        while (flooding && owner.SendQuery({"worker"})) {
        }
    });
    bool reported = owner.SendState(Message::BaseServiceStateType::RUNNING);
    int status = daemon.WaitExit(OWNER_WAIT_MS);
    flooding = false;
    flood.join();
    ASSERT_TRUE(reported);
    ASSERT_TRUE(WIFEXITED(status)) << status << "\n" << daemon.Log();
    EXPECT_EQ(1, WEXITSTATUS(status));
    const std::string ident = "STAVIK[" + std::to_string(daemon.Pid()) + "] ";
    long caught = daemon.IndexOf(ident + "<3> STAVIK: Caught exception=manifest library fault at owner_s");
    EXPECT_LE(0, caught) << daemon.Log();
    EXPECT_LT(caught, daemon.IndexOf(ident + "<4> stavik-daemon StavikRun failed"));
    for (const char* end : {"WaitThread exit now.", "CheckThread exit now.", "ReceiveChildProcessMsgThread exit now."}) {
        EXPECT_EQ(1u, daemon.CountLines(end)) << end;
    }
    EXPECT_EQ(0u, daemon.CountLines("can not find app"));
    EXPECT_EQ(0u, daemon.CountLines("Start baseApp success appName=late"));
}

} // namespace
} // namespace Test
} // namespace Stavik
