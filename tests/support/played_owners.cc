#include "tests/support/played_owners.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {

PlayedOwners::PlayedOwners(const Sandbox& sandbox, const std::vector<std::string>& names)
{
    setenv("TUBIX_DIR", sandbox.TubixDir().c_str(), 1);
    for (const std::string& name : names) {
        auto session = std::make_unique<OwnerSession>(name);
        if (!session->Start() && error_.empty()) {
            error_ = name + ": " + session->LastError();
        }
        sessions_[name] = std::move(session);
    }
}

std::unique_ptr<DaemonProcess> QuietDaemon(const Sandbox& sandbox, const std::vector<std::string>& args)
{
    std::vector<std::string> shellArgs = {"-c", "exec \"$0\" \"$@\" >/dev/null", BuiltProgram("stavik-daemon")};
    shellArgs.insert(shellArgs.end(), args.begin(), args.end());
    return std::make_unique<DaemonProcess>("/bin/sh", shellArgs, SandboxEnv(sandbox));
}

bool ReportRunning(OwnerSession& owner)
{
    return owner.WaitForDaemon(OWNER_WAIT_MS) && owner.SendState(Message::BaseServiceStateType::RUNNING);
}

std::vector<Message::AppStateInfo> EntriesOf(const OwnerSession& owner, const std::string& appName, size_t from)
{
    std::vector<Message::AppStateInfo> entries;
    for (const Client::OwnerEvent& event : owner.Events()) {
        if (event.index < from || event.kind != Client::OwnerEvent::Kind::REPORT) {
            continue;
        }
        for (const Message::AppStateInfo& app : event.apps) {
            if (app.appName == appName) {
                entries.push_back(app);
            }
        }
    }
    return entries;
}

std::vector<uint32_t> StatesOf(const std::vector<Message::AppStateInfo>& entries)
{
    std::vector<uint32_t> states;
    for (const Message::AppStateInfo& entry : entries) {
        states.push_back(entry.state);
    }
    return states;
}

bool Barrier(OwnerSession& owner)
{
    static std::atomic<int> count{0};
    const std::string name = "barrier_" + std::to_string(++count);
    size_t mark = owner.EventCount();
    return owner.SendTerm({name}) && owner.WaitForAppState(name, 3, OWNER_WAIT_MS, mark).has_value();
}

std::string RegexQuoted(const std::string& text)
{
    return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

std::vector<StartLine> StartLines(const DaemonProcess& daemon, const std::string& marker)
{
    const std::regex form(RegexQuoted(marker) + " appName=([^,]*), child_pid=(-?[0-9]+)");
    std::vector<StartLine> lines;
    std::vector<std::string> log = daemon.Lines();
    for (size_t i = 0; i < log.size(); ++i) {
        std::smatch match;
        std::string text = LogText(log[i]);
        if (std::regex_search(text, match, form)) {
            lines.push_back({match[1], static_cast<pid_t>(std::stol(match[2])), static_cast<long>(i)});
        }
    }
    return lines;
}

std::vector<std::string> NamesOf(const std::vector<StartLine>& lines)
{
    std::vector<std::string> names;
    for (const StartLine& line : lines) {
        names.push_back(line.name);
    }
    return names;
}

bool ProcessAlive(pid_t pid)
{
    char state = ProcessState(pid);
    return state != 0 && state != 'Z';
}

bool IgnoresSignal(pid_t pid, int signal)
{
    std::string status = ReadWholeFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("SigIgn:");
    if (at == std::string::npos) {
        return false;
    }
    unsigned long long mask = std::stoull(status.substr(at + strlen("SigIgn:")), nullptr, 16);
    return (mask >> (signal - 1) & 1ULL) != 0;
}

char ProcessState(pid_t pid)
{
    std::string stat = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() ? 0 : stat[close + 2];
}

} // namespace Test
} // namespace Stavik
