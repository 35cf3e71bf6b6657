// An owner service for the stress scripts: the daemon starts it as a reporting
// base service; it reports RUNNING, loads its start-up file (the daemon reads
// the one of the owner's manifest entry; FILE only goes into the log) and drives
// its applications NAME_a0 .. NAME_a<K-1> through start and term in a loop,
// checking that every request ends in the report it must produce.
//   load_owner --startup FILE --apps K --out FILE [--rounds R] [--stop-file F]
//              [--go-file G] [--report-timeout-ms T] [--lenient]
// NAME is $PROC_NAME. With G the loop begins once G exists, so that many
// owners booted one after another load the daemon together. The loop ends after R rounds (0: no bound) or once F
// exists; then every application is terminated a last time and the figures
// are written to --out with "state=final", after which the owner idles. The
// figures are also written after every round, with "last_round_clean=1" when
// that round needed no second attempt. A report of another state than
// the one asked for is "unexpected"; with --lenient it is "refused" and the
// request is sent again, as when starts fail for want of resources.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client/owner_session.h"

namespace {

using Clock = std::chrono::steady_clock;
using Stavik::Client::OwnerEvent;
using Stavik::Client::OwnerSession;

constexpr uint32_t RUNNING_NORMAL_START = 0;
constexpr uint32_t TERMINATED_NORMAL_EXIT = 3;
constexpr int ATTEMPTS_MAX = 100;
constexpr int RETRY_PAUSE_MS = 20;
constexpr int DAEMON_WAIT_MS = 60000;
constexpr int GO_POLL_MS = 10;

struct Settings {
    std::string startup;
    std::string out;
    std::string stopFile;
    std::string goFile;
    int apps = 1;
    long rounds = 0;
    int reportTimeoutMs = 30000;
    bool lenient = false;
};

struct Figures {
    long rounds = 0;
    long requests = 0;
    long reports = 0;
    long missing = 0;
    long unexpected = 0;
    long refused = 0;
    long abandoned = 0;
    long maxReportMs = 0;
    long long sumReportMs = 0;
    bool loaded = false;
    bool lastRoundClean = false;
    bool finalOk = false;

    long Troubles() const { return missing + unexpected + refused + abandoned; }
};

Settings ReadSettings(int argc, char* argv[])
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        bool hasValue = i + 1 < argc;
        if (word == "--startup" && hasValue) {
            settings.startup = argv[++i];
        } else if (word == "--out" && hasValue) {
            settings.out = argv[++i];
        } else if (word == "--stop-file" && hasValue) {
            settings.stopFile = argv[++i];
        } else if (word == "--go-file" && hasValue) {
            settings.goFile = argv[++i];
        } else if (word == "--apps" && hasValue) {
            settings.apps = atoi(argv[++i]);
        } else if (word == "--rounds" && hasValue) {
            settings.rounds = atol(argv[++i]);
        } else if (word == "--report-timeout-ms" && hasValue) {
            settings.reportTimeoutMs = atoi(argv[++i]);
        } else if (word == "--lenient") {
            settings.lenient = true;
        }
    }
    return settings;
}

// Replaces the figures file at once, so that a reader never sees half of it.
void WriteFigures(const std::string& path, const std::string& name, const Figures& f, const char* state)
{
    std::string temporary = path + ".tmp";
    FILE* file = fopen(temporary.c_str(), "w");
    if (file == nullptr) {
        return;
    }
    fprintf(file,
            "name=%s\nstate=%s\nloaded=%d\nrounds=%ld\nrequests=%ld\nreports=%ld\nmissing=%ld\nunexpected=%ld\n"
            "refused=%ld\nabandoned=%ld\nmax_report_ms=%ld\nsum_report_ms=%lld\nlast_round_clean=%d\nfinal_ok=%d\n",
            name.c_str(), state, f.loaded, f.rounds, f.requests, f.reports, f.missing, f.unexpected, f.refused,
            f.abandoned, f.maxReportMs, f.sumReportMs, f.lastRoundClean, f.finalOk);
    fclose(file);
    rename(temporary.c_str(), path.c_str());
}

class Driver {
public:
    Driver(OwnerSession& session, const Settings& settings, Figures& figures)
        : session_(session), settings_(settings), figures_(figures)
    {
        for (int i = 0; i < settings.apps; ++i) {
            names_.push_back(session.Name() + "_a" + std::to_string(i));
        }
    }

    // Sends the request for the names not yet in `want` until all are, or the
    // attempts run out; true when all got there.
    bool Drive(bool start, uint32_t want)
    {
        std::vector<std::string> pending = names_;
        for (int attempt = 0; attempt < ATTEMPTS_MAX && !pending.empty(); ++attempt) {
            if (attempt > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(RETRY_PAUSE_MS));
            }
            size_t mark = session_.EventCount();
            auto sentAt = Clock::now();
            if (!Send(start, pending)) {
                continue;
            }
            ++figures_.requests;
            std::vector<std::string> left;
            for (const std::string& name : pending) {
                if (!AwaitReport(name, want, mark, sentAt)) {
                    left.push_back(name);
                }
            }
            pending.swap(left);
        }
        figures_.abandoned += static_cast<long>(pending.size());
        return pending.empty();
    }

private:
    bool Send(bool start, const std::vector<std::string>& names)
    {
        if (!start) {
            return session_.SendTerm(names);
        }
        std::vector<Stavik::Message::StartAppInfo> apps;
        for (const std::string& name : names) {
            apps.push_back({name, {}, {}});
        }
        return session_.SendStart(apps);
    }

    bool AwaitReport(const std::string& name, uint32_t want, size_t mark, Clock::time_point sentAt)
    {
        auto report = session_.WaitFor(
            [&name](const OwnerEvent& event) {
                return event.kind == OwnerEvent::Kind::REPORT && event.FindApp(name) != nullptr;
            },
            settings_.reportTimeoutMs, mark);
        if (!report) {
            ++figures_.missing;
            fprintf(stderr, "load_owner %s: no report for %s\n", session_.Name().c_str(), name.c_str());
            return false;
        }
        long ms = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - sentAt).count());
        ++figures_.reports;
        figures_.maxReportMs = std::max(figures_.maxReportMs, ms);
        figures_.sumReportMs += ms;
        uint32_t state = report->FindApp(name)->state;
        if (state == want) {
            return true;
        }
        if (settings_.lenient) {
            ++figures_.refused;
        } else {
            ++figures_.unexpected;
            fprintf(stderr, "load_owner %s: %s reported state %u, not %u\n", session_.Name().c_str(),
                    name.c_str(), state, want);
        }
        return false;
    }

    OwnerSession& session_;
    const Settings& settings_;
    Figures& figures_;
    std::vector<std::string> names_;
};

bool StopAsked(const Settings& settings, const Figures& figures)
{
    if (settings.rounds > 0 && figures.rounds >= settings.rounds) {
        return true;
    }
    return !settings.stopFile.empty() && access(settings.stopFile.c_str(), F_OK) == 0;
}

} // namespace

int main(int argc, char* argv[])
{
    Settings settings = ReadSettings(argc, argv);
    const char* name = getenv("PROC_NAME");
    if (name == nullptr || settings.out.empty() || settings.startup.empty()) {
        fprintf(stderr, "load_owner: needs PROC_NAME, --out and --startup\n");
        return 2;
    }
    OwnerSession session(name);
    if (!session.Start() || !session.WaitForDaemon(DAEMON_WAIT_MS)) {
        fprintf(stderr, "load_owner %s: no pipe from the daemon: %s\n", name, session.LastError().c_str());
        return 1;
    }
    Figures figures;
    session.SendState(Stavik::Message::BaseServiceStateType::RUNNING);
    std::string answer;
    figures.loaded = session.LoadStartupCfg({{}, settings.startup}, answer) && answer == "0";
    Driver driver(session, settings, figures);
    // What an earlier incarnation left running is ended first.
    driver.Drive(false, TERMINATED_NORMAL_EXIT);
    while (!settings.goFile.empty() && access(settings.goFile.c_str(), F_OK) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(GO_POLL_MS));
    }
    while (!StopAsked(settings, figures)) {
        long troubles = figures.Troubles();
        driver.Drive(true, RUNNING_NORMAL_START);
        driver.Drive(false, TERMINATED_NORMAL_EXIT);
        ++figures.rounds;
        figures.lastRoundClean = figures.Troubles() == troubles;
        WriteFigures(settings.out, name, figures, "running");
    }
    figures.finalOk = driver.Drive(false, TERMINATED_NORMAL_EXIT);
    WriteFigures(settings.out, name, figures, "final");
    while (true) {
        pause();
    }
}
