#include "tests/support/played_owners.h"

#include <dirent.h>
#include <sched.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>

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

bool ReportRunning(OwnerSession& owner)
{
    return owner.WaitForDaemon(OWNER_WAIT_MS) && owner.SendState(Message::BaseServiceStateType::RUNNING);
}

bool LoadStartup(OwnerSession& owner)
{
    std::string answer;
    return owner.LoadStartupCfg(Message::StartupCfgInfo{{}, ""}, answer, OWNER_WAIT_MS);
}

std::vector<Message::AppStateInfo> EntriesOf(const OwnerSession& owner, const std::string& appName, size_t from)
{
    std::vector<Message::AppStateInfo> entries;
    for (const Client::OwnerEvent& event : owner.Events()) {
        for (const Message::AppStateInfo& app : event.apps) {
            if (event.index >= from && event.kind == Client::OwnerEvent::Kind::REPORT && app.appName == appName) {
                entries.push_back(app);
            }
        }
    }
    return entries;
}

std::vector<uint32_t> StatesOf(const std::vector<Message::AppStateInfo>& entries)
{
    std::vector<uint32_t> states(entries.size());
    std::transform(entries.begin(), entries.end(), states.begin(), [](const auto& entry) { return entry.state; });
    return states;
}

bool Barrier(OwnerSession& owner)
{
    static std::atomic<int> count{0};
    const std::string name = "barrier_" + std::to_string(++count);
    size_t mark = owner.EventCount();
    return owner.SendTerm({name}) && owner.WaitForAppState(name, 3, OWNER_WAIT_MS, mark).has_value();
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
    return at != std::string::npos && (std::stoull(status.substr(at + 7), nullptr, 16) >> (signal - 1) & 1ULL) != 0;
}

char ProcessState(pid_t pid)
{
    // The state letter follows the command name, which may hold blanks.
    std::string stat = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() ? 0 : stat[close + 2];
}

std::map<pid_t, char> ChildrenOf(pid_t parent)
{
    std::map<pid_t, char> children;
    DIR* proc = opendir("/proc");
    while (struct dirent* entry = proc == nullptr ? nullptr : readdir(proc)) {
        // The state and the parent follow the command name, which may hold blanks.
        std::string stat = ReadWholeFile("/proc/" + std::string(entry->d_name) + "/stat");
        size_t close = stat.rfind(')');
        pid_t pid = 0;
        pid_t ppid = 0;
        char state = 0;
        if (close != std::string::npos && sscanf(stat.c_str(), "%d", &pid) == 1 &&
            sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == parent) {
            children[pid] = state;
        }
    }
    if (proc != nullptr) {
        closedir(proc);
    }
    return children;
}

std::vector<uint32_t> UsableCpus()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    std::vector<uint32_t> cpus;
    for (uint32_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

std::string AllowedList(pid_t pid, pid_t tid)
{
    std::istringstream in(ReadWholeFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/status"));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("Cpus_allowed_list:", 0) == 0) {
            return line.substr(line.find_first_not_of(" \t", 18));
        }
    }
    return "";
}

std::map<int32_t, uint32_t> GroupMembers(const Sandbox& sandbox, const std::string& group)
{
    std::map<int32_t, uint32_t> found;
    std::istringstream in(ReadWholeFile(sandbox.TubixDir() + "/hal/groups/" + group));
    int32_t pid = 0;
    uint32_t word = 0;
    for (std::string line; std::getline(in, line);) {
        if (sscanf(line.c_str(), "member=%d %u", &pid, &word) == 2) {
            found[pid] = word;
        }
    }
    return found;
}

std::pair<int, std::string> RunCommand(const std::string& commandLine)
{
    FILE* out = popen(commandLine.c_str(), "r");
    std::string text;
    char buffer[4096];
    while (out != nullptr && fgets(buffer, sizeof(buffer), out) != nullptr) {
        text += buffer;
    }
    int status = out != nullptr ? pclose(out) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

} // namespace Test
} // namespace Stavik
