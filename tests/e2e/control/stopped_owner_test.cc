// An owner that stops reading (SIGSTOP) while its applications end: the
// daemon's reports to it wait in the pipe's send queue instead of in the check
// thread, so an unrelated service keeps its restart cadence, and the owner
// hears every end, in order, once it reads again.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const int APPS = 300;
const int FIRST_END_MS = 3000;
const int END_SPACING_MS = 15;
const unsigned long long REST_WINDOW_NS = 2000000000ULL;

std::string AppName(int i)
{
    char name[16];
    snprintf(name, sizeof(name), "app_%03d", i);
    return name;
}

struct Outcome {
    double normalCadenceMs = 0;
    double stoppedCadenceMs = 0;
    // The ends the owner did not ask for (TERMINATED_ABNORMAL_EXIT): in the
    // order the daemon reported them, and as the owner heard them, one group
    // per report record.
    std::vector<std::string> sent;
    std::vector<std::vector<std::string>> heard;
    std::string log;
};

// Every report heard once, and the records in the order they were sent: each
// record's entries come after all of the record before it.
std::string CheckHeardInOrder(const Outcome& outcome)
{
    std::map<std::string, size_t> sentAt;
    for (size_t i = 0; i < outcome.sent.size(); ++i) {
        sentAt[outcome.sent[i]] = i;
    }
    size_t heard = 0;
    long previousLast = -1;
    for (const std::vector<std::string>& record : outcome.heard) {
        long first = static_cast<long>(outcome.sent.size());
        long last = -1;
        for (const std::string& name : record) {
            if (sentAt.count(name) == 0) {
                return name + " heard but never sent";
            }
            first = std::min(first, static_cast<long>(sentAt[name]));
            last = std::max(last, static_cast<long>(sentAt[name]));
            ++heard;
        }
        if (first <= previousLast) {
            return "a record holding " + record.front() + " arrived out of order";
        }
        previousLast = last;
    }
    return heard == outcome.sent.size() ? "" : std::to_string(heard) + " of " + std::to_string(outcome.sent.size()) + " heard";
}

// Mean time between consecutive starts of the ticker within [from, to).
double MeanCadenceMs(const std::vector<unsigned long long>& starts, unsigned long long from, unsigned long long to)
{
    std::vector<unsigned long long> inside;
    std::copy_if(starts.begin(), starts.end(), std::back_inserter(inside),
                 [&](unsigned long long t) { return t >= from && t < to; });
    return inside.size() < 2 ? 1e9 : (inside.back() - inside.front()) / 1e6 / (inside.size() - 1);
}

std::vector<unsigned long long> TickerStarts(const Sandbox& sandbox)
{
    std::vector<unsigned long long> starts;
    DIR* dir = opendir(sandbox.Path("/out/ticker").c_str());
    for (dirent* entry = dir == nullptr ? nullptr : readdir(dir); entry != nullptr; entry = readdir(dir)) {
        std::map<std::string, std::string> record =
            ReadProbeRecord(sandbox.Path("/out/ticker/") + entry->d_name);
        if (record.count("boottime_ns") != 0) {
            starts.push_back(std::stoull(record["boottime_ns"]));
        }
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    std::sort(starts.begin(), starts.end());
    return starts;
}

unsigned long long BootNowNs()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000000ULL + now.tv_nsec;
}

// The (name, stateName) pairs of report events in text, in order.
std::vector<std::pair<std::string, std::string>> ReportedIn(const std::string& text)
{
    static const std::regex entry(
        R"re("appName":"(app_[0-9]+)","pid":[0-9]+,"gid":[0-9]+,"state":[0-9]+,"stateName":"([A-Z_]+)")re");
    std::vector<std::pair<std::string, std::string>> found;
    for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it) {
        found.emplace_back((*it)[1], (*it)[2]);
    }
    return found;
}

size_t CountState(const Sandbox& sandbox, const std::string& state)
{
    auto reported = ReportedIn(sandbox.ReadFile("/out/owner.jsonl"));
    return std::count_if(reported.begin(), reported.end(), [&](const auto& e) { return e.second == state; });
}

std::string StartRequest(int from, int to)
{
    std::string apps;
    for (int i = from; i < to; ++i) {
        apps += (apps.empty() ? "" : ",") + std::string(R"({"name":")") + AppName(i) + "\"}";
    }
    return R"({"type":"start","apps":[)" + apps + "]}";
}

// With a queue large enough the owner hears every end after SIGCONT; with a
// small one the run waits for the queue to drain instead.
Outcome RunWithStoppedOwner(const std::map<std::string, std::string>& daemonEnv, bool queueHoldsAll)
{
    Sandbox sandbox;
    MakeDirs(sandbox.Path("/out/ticker"));
    std::vector<AppEntry> apps;
    for (int i = 0; i < APPS; ++i) {
        apps.push_back(ProbeApp(AppName(i), {"--after-ms", std::to_string(FIRST_END_MS + END_SPACING_MS * i),
                                             "--exit", "0"}));
    }
    std::string startup = sandbox.WriteFile("/etc/startup/owner_s.yaml", AppsText(apps));
    AppEntry owner = ToolOwner("owner_s", {R"({"type":"state","state":"RUNNING"})",
                                           R"({"type":"load","path":")" + startup + R"(","match":{}})",
                                           StartRequest(0, APPS / 2), StartRequest(APPS / 2, APPS)});
    owner.startupEntryPath = startup;
    owner.args.push_back("--events");
    owner.args.push_back(sandbox.Path("/out/owner.jsonl"));
    AppEntry ticker = ProbeApp("ticker", {"--out-dir", sandbox.Path("/out/ticker"), "--after-ms", "100", "--exit", "1"});
    ticker.restart = "on-forever";
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText({owner, ticker}))}, daemonEnv);

    Outcome outcome;
    bool running = WaitUntil([&] { return daemon.CountLines("STARTING to RUNNING appName=app_") == APPS; }, 30000);
    std::vector<BaseAppStart> starts = BaseAppStarts(daemon);
    auto ownerStart = std::find_if(starts.begin(), starts.end(), [](const BaseAppStart& s) { return s.name == "owner_s"; });
    if (!running || ownerStart == starts.end()) {
        outcome.log = "owner heard: " + sandbox.ReadFile("/out/owner.jsonl").substr(0, 3000) + "\n" + daemon.Log();
        return outcome;
    }
    unsigned long long stopped = BootNowNs();
    kill(ownerStart->pid, SIGSTOP);
    WaitUntil([&] { return daemon.CountLines("RUNNING to TERMINATED appName=app_") == APPS; }, 30000);
    unsigned long long resumed = BootNowNs();
    kill(ownerStart->pid, SIGCONT);
    if (queueHoldsAll) {
        WaitUntil([&] { return CountState(sandbox, "TERMINATED_ABNORMAL_EXIT") == APPS; }, 20000);
    } else {
        WaitUntil([&] { return daemon.CountLines("has drained") != 0; }, 20000);
    }

    // The cadence at rest, once the owner reads again and its applications are gone.
    unsigned long long restFrom = BootNowNs();
    WaitUntil([&] { return BootNowNs() > restFrom + REST_WINDOW_NS; }, 10000);
    std::vector<unsigned long long> ticks = TickerStarts(sandbox);
    outcome.normalCadenceMs = MeanCadenceMs(ticks, restFrom, restFrom + REST_WINDOW_NS);
    outcome.stoppedCadenceMs = MeanCadenceMs(ticks, stopped, resumed);
    const std::string sentLine = "report appState to owner_s, appState=TERMINATED_ABNORMAL_EXIT, appName=";
    for (const std::string& line : daemon.Lines()) {
        size_t at = line.find(sentLine);
        if (at != std::string::npos) {
            size_t from = at + sentLine.size();
            outcome.sent.push_back(line.substr(from, line.find(',', from) - from));
        }
    }
    std::istringstream events(sandbox.ReadFile("/out/owner.jsonl"));
    for (std::string line; std::getline(events, line);) {
        std::vector<std::string> record;
        for (const auto& entry : ReportedIn(line)) {
            if (entry.second == "TERMINATED_ABNORMAL_EXIT") {
                record.push_back(entry.first);
            }
        }
        if (!record.empty()) {
            outcome.heard.push_back(record);
        }
    }
    outcome.log = daemon.Log();
    return outcome;
}

TEST(StoppedOwner, ReportsWaitInTheQueueNotInTheCheckThread)
{
    Outcome outcome = RunWithStoppedOwner({}, true);
    EXPECT_LE(outcome.stoppedCadenceMs, outcome.normalCadenceMs + 50) << outcome.log.substr(0, 20000);
    EXPECT_EQ(static_cast<size_t>(APPS), outcome.sent.size()) << outcome.log.substr(0, 20000);
    EXPECT_EQ("", CheckHeardInOrder(outcome));
}

TEST(StoppedOwner, AnOverflowingQueueIsLoggedAndTheCadenceHolds)
{
    Outcome outcome = RunWithStoppedOwner({{"TUBIX_SEND_QUEUE_MAX", "16"}}, false);
    EXPECT_NE(std::string::npos, outcome.log.find("is full (16 messages)")) << outcome.log.substr(0, 20000);
    EXPECT_LE(outcome.stoppedCadenceMs, outcome.normalCadenceMs + 50);
    // What the full queue refused is lost, and said so; what it took arrives in order.
    EXPECT_NE(std::string::npos, outcome.log.find("STAVIK : Master SendRequestMsg failed, err code=-105"));
    EXPECT_LT(outcome.sent.size(), static_cast<size_t>(APPS));
    EXPECT_EQ("", CheckHeardInOrder(outcome));
}

} // namespace
} // namespace Test
} // namespace Stavik
