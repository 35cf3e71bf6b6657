// An owner that stops reading (SIGSTOP) while its applications end: the
// daemon's reports to it wait in the pipe's send queue instead of in the check
// thread, so an unrelated service keeps its restart cadence, and the owner
// hears every end, in order, once it reads again.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const int APPS = 300;
const int FIRST_END_MS = 3000;
const int END_SPACING_MS = 15;
const unsigned long long REST_WINDOW_NS = 2000000000ULL;
const std::string ENDED = "TERMINATED_ABNORMAL_EXIT";

std::string AppName(int i)
{
    char name[16];
    snprintf(name, sizeof(name), "app_%03d", i);
    return name;
}

unsigned long long BootNowNs()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000000ULL + now.tv_nsec;
}

// Mean time between consecutive starts of the ticker within [from, to).
double MeanCadenceMs(const Sandbox& box, const DaemonProcess& daemon, unsigned long long from, unsigned long long to)
{
    std::vector<unsigned long long> inside;
    for (pid_t pid : daemon.StartedPids("ticker")) {
        std::string started = ReadProbeRecord(box.Path("/out/ticker/" + std::to_string(pid)))["boottime_ns"];
        if (!started.empty() && std::stoull(started) >= from && std::stoull(started) < to) {
            inside.push_back(std::stoull(started));
        }
    }
    std::sort(inside.begin(), inside.end());
    return inside.size() < 2 ? 1e9 : (inside.back() - inside.front()) / 1e6 / (inside.size() - 1);
}

// The names of the ends in one line of the owner's events, in order.
std::vector<std::string> EndsIn(const std::string& text)
{
    static const std::regex entry(R"re("appName":"(app_[0-9]+)","pid":[0-9]+,"gid":[0-9]+,"state":[0-9]+,"stateName":")re" +
                                  ENDED + "\"");
    std::vector<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it) {
        found.push_back((*it)[1]);
    }
    return found;
}

std::string StartRequest(int from, int to)
{
    std::string apps;
    for (int i = from; i < to; ++i) {
        apps += (apps.empty() ? "" : ",") + std::string(R"({"name":")") + AppName(i) + "\"}";
    }
    return R"({"type":"start","apps":[)" + apps + "]}";
}

TEST(StoppedOwner, ReportsWaitInTheQueueNotInTheCheckThread)
{
    Sandbox box;
    MakeDirs(box.Path("/out/ticker"));
    std::vector<AppEntry> apps;
    for (int i = 0; i < APPS; ++i) {
        apps.push_back(ProbeApp(AppName(i), {"--after-ms", std::to_string(FIRST_END_MS + END_SPACING_MS * i),
                                             "--exit", "0"}));
    }
    std::string startup = box.WriteFile("/etc/startup/owner_s.yaml", AppsText(apps));
    AppEntry owner = ToolOwner("owner_s", {R"({"type":"state","state":"RUNNING"})",
                                           R"({"type":"load","path":")" + startup + R"(","match":{}})",
                                           StartRequest(0, APPS / 2), StartRequest(APPS / 2, APPS)});
    owner.startupEntryPath = startup;
    owner.args.insert(owner.args.end(), {"--events", box.Path("/out/owner.jsonl")});
    AppEntry ticker = ProbeApp("ticker", {"--out-dir", box.Path("/out/ticker"), "--after-ms", "100", "--exit", "1"});
    DaemonProcess daemon(box, {box.WriteFile("/etc/base.yaml", AppsText({owner, ticker.With("restart", "on-forever")}))});

    ASSERT_TRUE(WaitUntil([&] { return daemon.CountLines("STARTING to RUNNING appName=app_") == APPS; }, 30000))
        << box.ReadFile("/out/owner.jsonl").substr(0, 3000) << "\n" << daemon.Log();
    const pid_t ownerPid = daemon.StartedPids("owner_s").at(0);
    unsigned long long stopped = BootNowNs();
    kill(ownerPid, SIGSTOP);
    WaitUntil([&] { return daemon.CountLines("RUNNING to TERMINATED appName=app_") == APPS; }, 30000);
    unsigned long long resumed = BootNowNs();
    kill(ownerPid, SIGCONT);
    WaitUntil([&] { return EndsIn(box.ReadFile("/out/owner.jsonl")).size() == APPS; }, 20000);
    // The cadence at rest, once the owner reads again and its applications are gone.
    unsigned long long restFrom = BootNowNs();
    WaitUntil([&] { return BootNowNs() > restFrom + REST_WINDOW_NS; }, 10000);
    EXPECT_LE(MeanCadenceMs(box, daemon, stopped, resumed),
              MeanCadenceMs(box, daemon, restFrom, restFrom + REST_WINDOW_NS) + 50);

    // Every end heard once, and the records in the order they were sent: each
    // record's entries come after all of the record before it.
    std::map<std::string, long> sentAt;
    const std::string sentLine = "report appState to owner_s, appState=" + ENDED + ", appName=";
    for (const std::string& line : daemon.Lines()) {
        size_t at = line.find(sentLine);
        if (at != std::string::npos) {
            size_t from = at + sentLine.size();
            sentAt.emplace(line.substr(from, line.find(',', from) - from), static_cast<long>(sentAt.size()));
        }
    }
    ASSERT_EQ(static_cast<size_t>(APPS), sentAt.size()) << daemon.Log().substr(0, 20000);
    std::istringstream events(box.ReadFile("/out/owner.jsonl"));
    long previousLast = -1;
    std::set<std::string> heard;
    for (std::string line; std::getline(events, line);) {
        std::vector<std::string> record = EndsIn(line);
        long first = APPS;
        long last = -1;
        for (const std::string& name : record) {
            ASSERT_EQ(1u, sentAt.count(name)) << name << " heard but never sent";
            EXPECT_TRUE(heard.insert(name).second) << name << " heard twice";
            first = std::min(first, sentAt[name]);
            last = std::max(last, sentAt[name]);
        }
        EXPECT_LT(previousLast, first) << "a record holding " << record.front() << " arrived out of order";
        previousLast = std::max(previousLast, last);
    }
    EXPECT_EQ(static_cast<size_t>(APPS), heard.size());
}

} // namespace
} // namespace Test
} // namespace Stavik
