// stavik-owner: plays an owner service of the daemon from the command line.
// It serves as --name, prints one JSON line per event on standard output,
// sends the given requests once the daemon's pipe is up and keeps listening
// until --exit-after-ms has passed since its start, or SIGTERM or SIGINT.
// docs/owner-tool.md describes the options, the request forms and the events.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <ctime>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "client/owner_event_json.h"
#include "client/owner_request_json.h"
#include "client/owner_session.h"

namespace {

using json = nlohmann::ordered_json;
using Stavik::Client::OwnerEvent;
using Stavik::Client::OwnerRequest;
using Stavik::Client::OwnerSession;

constexpr int DEFAULT_WAIT_DAEMON_MS = 30000;
// What to look at when the daemon has no pipe to this service.
const std::string NO_PIPE_HINT =
    "check that stavik-daemon runs with this TUBIX_DIR and that its manifest lists this --name with reporting: true";

const char REQUEST_FORMS[] = R"(Requests, one JSON object each, with an example of every type:
  start      {"type":"start","apps":[{"name":"a","argv":["-v"],"dynamic":{"0":["/bin/a"],"2":["K=V"]}}]}
  restart    {"type":"restart","apps":[{"name":"a"}]}
  term       {"type":"term","apps":["a","b"]}
  state      {"type":"state","state":"RUNNING"}       (INIT, RESTARTING, RUNNING, TERMINATING)
  exec       {"type":"exec","appName":"a","pid":1234,"gid":0,"state":"RUNNING"}
  load       {"type":"load","path":"/etc/x/startup.yaml","match":{"board":"b1"}}
  reload     {"type":"reload","path":"/etc/x/startup.yaml"}
  query      {"type":"query","apps":["a","b"]}
  raw        {"type":"raw","msgType":8,"body":"text","size":5000}
  raw-bytes  {"type":"raw-bytes","length":100}
  sleep      {"type":"sleep","ms":500}

Example: play the naming service for 5 s, start netmgr and print what follows:
  stavik-owner --name zulmgr --exit-after-ms 5000 \
      --request '{"type":"state","state":"INIT"}' \
      --request '{"type":"start","apps":[{"name":"netmgr"}]}'

Events and every field: man stavik-owner, or docs/owner-tool.md.)";

struct Options {
    std::string name;
    std::vector<std::string> requests;
    bool readStdin = false;
    int64_t exitAfterMs = -1;
    int waitDaemonMs = DEFAULT_WAIT_DAEMON_MS;
    std::string eventsPath;
};

// Standard output, one whole line at a time from any thread.
class Printer {
public:
    void Print(const json& line)
    {
        Print(line.dump(-1, ' ', false, json::error_handler_t::replace));
    }

    void Print(const std::string& line)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        fputs(line.c_str(), stdout);
        fputc('\n', stdout);
        fflush(stdout);
    }

    void Error(const std::string& message)
    {
        Print(json{{"event", "error"}, {"message", message}});
    }

    // Ends the process between two lines, whatever other threads are doing.
    [[noreturn]] void Finish(int status)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        fflush(stdout);
        _exit(status);
    }

private:
    std::mutex mutex_;
};

Printer& Out()
{
    static Printer* printer = new Printer();
    return *printer;
}

// Returns when one of the signals comes or, with a time limit, when it has passed.
void AwaitEnd(const sigset_t& endSignals, int64_t exitAfterMs)
{
    int signal = 0;
    if (exitAfterMs < 0) {
        while (sigwait(&endSignals, &signal) != 0) {
        }
        return;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(exitAfterMs);
    while (true) {
        auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return;
        }
        struct timespec timeout = {static_cast<time_t>(left.count() / 1000000000),
                                   static_cast<long>(left.count() % 1000000000)};
        if (sigtimedwait(&endSignals, nullptr, &timeout) > 0) {
            return;
        }
    }
}

// Runs on its own thread, the only one that takes the end signals.
[[noreturn]] void WatchForEnd(sigset_t endSignals, int64_t exitAfterMs)
{
    AwaitEnd(endSignals, exitAfterMs);
    Out().Finish(0);
}

// Sends the requests one by one; each failure is an error event and the next one goes on.
class RequestRunner {
public:
    RequestRunner(OwnerSession& session, int waitDaemonMs)
        : session_(session), dialect_(Stavik::Client::DialectFor(session.Name())), waitDaemonMs_(waitDaemonMs)
    {
    }

    void Run(const std::string& text)
    {
        OwnerRequest request;
        std::string error;
        if (!Stavik::Client::ParseOwnerRequest(text, dialect_, request, error)) {
            Out().Error("request " + text + ": " + error + "; stavik-owner --help shows every request form");
            return;
        }
        if (request.action == OwnerRequest::Action::SLEEP) {
            std::this_thread::sleep_for(std::chrono::milliseconds(request.sleepMs));
            return;
        }
        AwaitDaemonOnce();
        if (request.action == OwnerRequest::Action::CALL_RECORD) {
            Call(request);
        } else {
            Send(request);
        }
    }

private:
    // The first request waits for the pipe; later ones fail at once while it is down.
    void AwaitDaemonOnce()
    {
        if (awaited_) {
            return;
        }
        awaited_ = true;
        if (!session_.WaitForDaemon(waitDaemonMs_)) {
            Out().Error("the daemon opened no pipe within " + std::to_string(waitDaemonMs_) + " ms; " + NO_PIPE_HINT);
        }
    }

    void Send(const OwnerRequest& request)
    {
        bool sent = request.action == OwnerRequest::Action::SEND_BYTES ? session_.SendBytes(request.bytes)
                                                                       : session_.SendRecord(request.record);
        if (!sent) {
            Out().Error("request " + request.json + ": " + session_.LastError() + "; " + NO_PIPE_HINT);
            return;
        }
        Out().Print(json{{"event", "sent"}, {"request", json::parse(request.json)}});
    }

    void Call(const OwnerRequest& request)
    {
        std::string answer;
        if (!session_.CallRecord(request.record, answer)) {
            Out().Error("request " + request.json + ": " + session_.LastError() + "; " + NO_PIPE_HINT);
            return;
        }
        Out().Print(json{{"event", "response"}, {"request", request.type}, {"text", answer}});
    }

    OwnerSession& session_;
    const Stavik::Client::Dialect dialect_;
    const int waitDaemonMs_;
    bool awaited_ = false;
};

bool IsBlank(const std::string& line)
{
    return line.find_first_not_of(" \t\r") == std::string::npos;
}

int Serve(const Options& options)
{
    OwnerSession session(options.name);
    session.SetListener([](const OwnerEvent& event) { Out().Print(Stavik::Client::OwnerEventJson(event)); });
    if (!session.Start()) {
        Out().Error(session.LastError() + "; check that TUBIX_DIR (default /run/tubix) exists and is writable, " +
                    "and that no other process serves this --name");
        Out().Finish(1);
    }
    Out().Print(json{{"event", "listening"}, {"name", options.name}});
    RequestRunner runner(session, options.waitDaemonMs);
    for (const std::string& request : options.requests) {
        runner.Run(request);
    }
    std::string line;
    while (options.readStdin && std::getline(std::cin, line)) {
        if (!IsBlank(line)) {
            runner.Run(line);
        }
    }
    while (true) {
        pause();
    }
}

} // namespace

int main(int argc, char* argv[])
{
    Options options;
    CLI::App app{"Plays an owner service of the Stavik daemon and prints what it sees as JSON lines."};
    app.add_option("--name", options.name, "Service name to serve as (the daemon opens a pipe to it)")->required();
    app.add_option("--request", options.requests, "A request as a JSON object; repeatable, sent in order")
        ->take_all();
    app.add_flag("--stdin", options.readStdin, "Then read one JSON request per line from standard input");
    app.add_option("--exit-after-ms", options.exitAfterMs, "Exit this long after the start (default: never)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--wait-daemon-ms", options.waitDaemonMs, "How long the first request waits for the daemon")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--events", options.eventsPath,
                   "Write the events to this file instead of standard output (a service started by the daemon "
                   "shares the daemon's)");
    app.footer(REQUEST_FORMS);
    CLI11_PARSE(app, argc, argv);
    if (!options.eventsPath.empty() && freopen(options.eventsPath.c_str(), "w", stdout) == nullptr) {
        fprintf(stderr, "stavik-owner: cannot write the events to %s: %s; give a writable --events path\n",
                options.eventsPath.c_str(), strerror(errno));
        return 1;
    }

    // Every thread started from here on inherits the mask; only the watcher takes the signals.
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    // A reader that went away must not end the service.
    signal(SIGPIPE, SIG_IGN);
    std::thread(WatchForEnd, endSignals, options.exitAfterMs).detach();

    setenv("PROC_NAME", options.name.c_str(), 1);
    return Serve(options);
}
