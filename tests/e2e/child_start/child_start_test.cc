// Child start and reaping through the real daemon: duplicate names, what a
// child inherits, a query racing its process's exit, and the stop after an
// exception that leaves Run while threads, pipes and children live.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "app/process_state.h"
#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const int RACE_CYCLES_MAX = 150;
const size_t QUERIES_PER_CYCLE_MAX = 400;
const size_t QUERY_BATCH = 10;

std::string LinkOf(const std::string& path)
{
    char target[PATH_MAX] = {0};
    return readlink(path.c_str(), target, sizeof(target) - 1) > 0 ? target : "";
}

// Index of the n-th line (from 0) holding text, or -1.
long IndexOfNth(const std::vector<std::string>& lines, const std::string& text, size_t n)
{
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(text) != std::string::npos && n-- == 0) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

long IndexOfText(const std::vector<std::string>& lines, const std::string& text)
{
    return IndexOfNth(lines, text, 0);
}

class ChildStartRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* dir : {"/out/base_first", "/out/base_second", "/out/prio_first", "/out/prio_second"}) {
            MakeDirs(box_.Path(dir));
        }
        AppEntry firstPrio = ProbeApp("dup_prio", {"--out-dir", box_.Path("/out/prio_first")});
        firstPrio.startupPriority = 1;
        AppEntry secondPrio = ProbeApp("dup_prio", {"--out-dir", box_.Path("/out/prio_second")});
        secondPrio.startupPriority = 1;
        std::string ownerFile =
            box_.WriteFile("/etc/startup/owner_c.yaml", AppsText({firstPrio, ProbeApp("racer", {"--after-ms", "5", "--exit", "0"})}));
        secondFile_ = box_.WriteFile("/etc/startup/second.yaml", AppsText({secondPrio}));
        AppEntry second = ProbeApp("second");
        second.startupEntryPath = secondFile_;
        manifest_ = box_.WriteFile(
            "/etc/base.yaml",
            AppsText({ProbeApp("dup_base", {"--out-dir", box_.Path("/out/base_first")}), DummyOwner("owner_c", ownerFile),
                      second, ProbeApp("dup_base", {"--out-dir", box_.Path("/out/base_second")})}));
    }

    std::vector<std::string> Records(const std::string& dir) const
    {
        std::vector<std::string> found;
        for (pid_t pid : {dupBasePid_, dupPrioPid_}) {
            std::string path = box_.Path(dir + "/" + std::to_string(pid));
            if (access(path.c_str(), F_OK) == 0) {
                found.push_back(path);
            }
        }
        return found;
    }

    Sandbox box_;
    std::string manifest_;
    std::string secondFile_;
    pid_t dupBasePid_ = 0;
    pid_t dupPrioPid_ = 0;
};

TEST_F(ChildStartRun, FirstOfDuplicateNamesWinsChildrenKeepOnlyThePipesWriteEndAndAQueryNeverTakesAStatus)
{
    PlayedOwners owners(box_, {"owner_c"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box_, {manifest_});
    OwnerSession& owner = owners["owner_c"];
    ASSERT_TRUE(ReportRunning(owner)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("InitBaseApplication end", OWNER_WAIT_MS)) << daemon.Log();

    // One process each, started from the first entry; one line for each later one.
    std::vector<pid_t> basePids = StartedPids(daemon, "dup_base");
    std::vector<StartLine> prioStarts = StartLines(daemon, "Start priority generalApp success");
    ASSERT_EQ(1u, basePids.size()) << daemon.Log();
    ASSERT_EQ(1u, prioStarts.size()) << daemon.Log();
    dupBasePid_ = basePids[0];
    dupPrioPid_ = prioStarts[0].pid;
    EXPECT_TRUE(WaitUntil([&] { return Records("/out/base_first").size() == 1 && Records("/out/prio_first").size() == 1; }));
    EXPECT_TRUE(Records("/out/base_second").empty() && Records("/out/prio_second").empty());
    EXPECT_EQ(1u, CountExact(daemon, "STAVIK : ParseYamlFile : " + manifest_ +
                                         " names appName=dup_base again, the later entry is ignored"));
    EXPECT_EQ(1u, CountExact(daemon, "stavik-daemon " + secondFile_ +
                                         " names priority app name=dup_prio again, the later entry is ignored"));

    // A child has what the daemon was given (its standard streams, whatever
    // the test's runner passed on) and the pipe's write end; the read end and
    // every other descriptor the daemon opened stay behind.
    std::string pipeLine = daemon.WaitForLine("creat anonymous pipe success");
    size_t at = pipeLine.find("read pipe fd=");
    int readEnd = -1;
    int writeEnd = -1;
    ASSERT_TRUE(at != std::string::npos &&
                sscanf(pipeLine.c_str() + at, "read pipe fd=%d, write pipe fd=%d", &readEnd, &writeEnd) == 2)
        << pipeLine;
    const std::string writeFd = std::to_string(writeEnd);
    std::string pipe = LinkOf("/proc/" + std::to_string(daemon.Pid()) + "/fd/" + std::to_string(readEnd));
    ASSERT_EQ(0u, pipe.find("pipe:[")) << pipe;
    std::map<std::string, std::string> record = ReadProbeRecord(Records("/out/base_first").at(0));
    std::string listenFd = record.count("env.TUBIX_LISTEN_FD") ? record["env.TUBIX_LISTEN_FD"] : "none";
    EXPECT_EQ(pipe, record["fd." + writeFd]);
    for (const auto& entry : record) {
        if (entry.first.compare(0, 3, "fd.") == 0) {
            std::string fd = entry.first.substr(3);
            bool passedOn = fd == "0" || fd == "1" || fd == "2" || LinkOf("/proc/self/fd/" + fd) == entry.second;
            EXPECT_TRUE(passedOn || fd == writeFd || fd == listenFd)
                << entry.first << "=" << entry.second;
        }
    }

    // Queries flood a process that exits at once, until one of them has
    // looked at it dead before the wait thread filed its status (its last
    // line comes before the filing). Every exit status still reaches the
    // record, and the owner hears of every end.
    std::string answer;
    ASSERT_TRUE(owner.LoadStartupCfg(Message::StartupCfgInfo{{}, ""}, answer)) << owner.LastError();
    const std::string finished = "SK finish QUERY_APP_STATE request from owner_c";
    size_t queries = 0;
    bool raceHit = false;
    for (int cycle = 0; cycle < RACE_CYCLES_MAX && !raceHit; ++cycle) {
        size_t mark = owner.EventCount();
        auto isEnd = [](const Client::OwnerEvent& event) {
            const Message::AppStateInfo* app = event.FindApp("racer");
            return app != nullptr && app->state == TERMINATED_ABNORMAL_EXIT;
        };
        ASSERT_TRUE(owner.SendStart({{"racer", {}, {}}})) << owner.LastError();
        // Queries keep coming until the end is heard, so that some meet the death.
        size_t sent = 0;
        while (sent < QUERIES_PER_CYCLE_MAX && (sent % QUERY_BATCH != 0 || !owner.WaitFor(isEnd, 0, mark))) {
            ASSERT_TRUE(owner.SendQuery({"racer"})) << owner.LastError();
            ++sent;
        }
        std::optional<Client::OwnerEvent> end = owner.WaitFor(isEnd, OWNER_WAIT_MS, mark);
        ASSERT_TRUE(end.has_value()) << "cycle " << cycle << ": the end of racer never reached its owner\n"
                                     << daemon.Log();
        ASSERT_TRUE(WaitUntil([&] { return daemon.CountLines(finished) >= queries + sent; }));
        pid_t pid = StartLines(daemon, "Start generalApp success").back().pid;
        std::vector<std::string> lines = daemon.Lines();
        long filed = IndexOfText(lines, "STAVIK : SetExitStatus racer, pid=" + std::to_string(pid));
        size_t nth = 0;
        for (const Client::OwnerEvent& event : owner.Events()) {
            if (event.index < mark || event.kind != Client::OwnerEvent::Kind::DETAIL) {
                continue;
            }
            bool dead = event.index < end->index && event.detail.at("racer") == Message::DETAIL_STATUS_ABSENT;
            raceHit = raceHit || (dead && IndexOfNth(lines, finished, queries + nth) < filed);
            ++nth;
        }
        queries += sent;
    }
    EXPECT_TRUE(raceHit) << "no query met racer dead and unfiled in " << RACE_CYCLES_MAX << " cycles";
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
    const std::string prefix = "STAVIK[" + std::to_string(daemon.Pid()) + "] <3> ";
    long caught = daemon.IndexOf(prefix + "STAVIK: Caught exception=manifest library fault at owner_s");
    EXPECT_LE(0, caught) << daemon.Log();
    EXPECT_LT(caught, daemon.IndexOf("STAVIK[" + std::to_string(daemon.Pid()) + "] <4> stavik-daemon StavikRun failed"));
    for (const char* end : {"WaitThread exit now.", "CheckThread exit now.", "ReceiveChildProcessMsgThread exit now."}) {
        EXPECT_EQ(1u, daemon.CountLines(end)) << end;
    }
    EXPECT_EQ(0u, daemon.CountLines("can not find app"));
    EXPECT_EQ(0u, daemon.CountLines("Start baseApp success appName=late"));
}

} // namespace
} // namespace Test
} // namespace Stavik
