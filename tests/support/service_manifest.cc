#include "tests/support/service_manifest.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>

#include <cstdlib>
#include <regex>
#include <sstream>

namespace Stavik {
namespace Test {
namespace {

// Double-quoted YAML scalar, so that tokens like "&&" or "$(x)" reach the daemon as they are.
std::string Quoted(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

std::string QuotedList(const std::vector<std::string>& items)
{
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) {
        out += (i == 0 ? "" : ", ") + Quoted(items[i]);
    }
    return out + "]";
}

std::string EntryText(const ServiceSpec& service)
{
    std::ostringstream out;
    out << "  - name: " << Quoted(service.name) << "\n";
    out << "    bin_path: " << Quoted(service.binPath) << "\n";
    out << "    args: " << QuotedList(service.args) << "\n";
    out << "    uid: " << service.uid << "\n    gid: " << service.gid << "\n";
    if (!service.env.empty()) {
        out << "    env:\n";
        for (const auto& entry : service.env) {
            out << "      " << Quoted(entry.first) << ": " << Quoted(entry.second) << "\n";
        }
    }
    if (!service.restart.empty()) {
        out << "    restart: " << Quoted(service.restart) << "\n";
    }
    if (!service.depends.empty()) {
        out << "    depends: " << QuotedList(service.depends) << "\n";
    }
    if (service.nice != 0) {
        out << "    nice: " << service.nice << "\n";
    }
    if (service.heartBeat) {
        out << "    heartbeat: {enable: " << (service.heartBeat->enable ? "true" : "false")
            << ", interval: " << service.heartBeat->interval << ", count: " << service.heartBeat->count << "}\n";
    }
    if (!service.startupEntryPath.empty()) {
        out << "    startup_entry_path: " << Quoted(service.startupEntryPath) << "\n";
    }
    return out.str();
}

std::map<std::string, std::string> KeyValueLines(const std::string& text, char lineEnd)
{
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line, lineEnd)) {
        size_t equals = line.find('=');
        if (equals != std::string::npos) {
            values[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return values;
}

// The fields of /proc/<pid>/stat behind the command name, which may hold blanks.
bool ReadStat(const std::string& pidText, char& state, pid_t& ppid)
{
    std::string stat = ReadWholeFile("/proc/" + pidText + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return false;
    }
    std::istringstream rest(stat.substr(close + 1));
    return static_cast<bool>(rest >> state >> ppid);
}

} // namespace

std::string ManifestText(const std::vector<ServiceSpec>& services)
{
    if (services.empty()) {
        return "apps: []\n";
    }
    std::string text = "apps:\n";
    for (const ServiceSpec& service : services) {
        text += EntryText(service);
    }
    return text;
}

ServiceSpec ProbeService(const std::string& name, const std::vector<std::string>& args)
{
    ServiceSpec service;
    service.name = name;
    service.binPath = BuiltProgram("tests/probe_child");
    service.args = args;
    return service;
}

std::map<std::string, std::string> ReadProbeRecord(const std::string& path)
{
    return KeyValueLines(ReadWholeFile(path), '\n');
}

std::map<std::string, std::string> ProbeEnv(const std::map<std::string, std::string>& record)
{
    const std::string prefix = "env.";
    std::map<std::string, std::string> env;
    for (const auto& entry : record) {
        if (entry.first.compare(0, prefix.size(), prefix) == 0) {
            env[entry.first.substr(prefix.size())] = entry.second;
        }
    }
    return env;
}

std::map<std::string, std::string> ProcessEnviron(pid_t pid)
{
    return KeyValueLines(ReadWholeFile("/proc/" + std::to_string(pid) + "/environ"), '\0');
}

std::string MapDiff(const std::map<std::string, std::string>& expected,
                    const std::map<std::string, std::string>& actual)
{
    std::string diff;
    for (const auto& entry : expected) {
        auto found = actual.find(entry.first);
        if (found == actual.end()) {
            diff += "missing " + entry.first + "=" + entry.second + "\n";
        } else if (found->second != entry.second) {
            diff += entry.first + ": expected '" + entry.second + "', got '" + found->second + "'\n";
        }
    }
    for (const auto& entry : actual) {
        if (expected.count(entry.first) == 0) {
            diff += "unexpected " + entry.first + "=" + entry.second + "\n";
        }
    }
    return diff;
}

std::set<gid_t> SupplementaryGroupsOf(uid_t uid)
{
    struct passwd* user = getpwuid(uid);
    if (user == nullptr) {
        return {};
    }
    gid_t groups[128];
    int count = 128;
    if (getgrouplist(user->pw_name, user->pw_gid, groups, &count) < 0) {
        return {};
    }
    return std::set<gid_t>(groups, groups + count);
}

std::set<gid_t> ParseGroups(const std::string& text)
{
    std::set<gid_t> groups;
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        groups.insert(static_cast<gid_t>(std::stoul(item)));
    }
    return groups;
}

std::string LogText(const std::string& line)
{
    static const std::regex prefix(R"(^(kmsg )?STAVIK\[[0-9]+\] <[0-9]> )");
    std::smatch match;
    if (std::regex_search(line, match, prefix)) {
        return match.suffix().str();
    }
    return line;
}

long IndexOfExact(const DaemonProcess& daemon, const std::string& text)
{
    std::vector<std::string> lines = daemon.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (LogText(lines[i]) == text) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

bool WaitForExactLine(const DaemonProcess& daemon, const std::string& text, int timeoutMs)
{
    return WaitUntil([&] { return IndexOfExact(daemon, text) >= 0; }, timeoutMs);
}

size_t CountExact(const DaemonProcess& daemon, const std::string& text)
{
    size_t count = 0;
    for (const std::string& line : daemon.Lines()) {
        count += LogText(line) == text ? 1 : 0;
    }
    return count;
}

std::vector<BaseAppStart> BaseAppStarts(const DaemonProcess& daemon)
{
    static const std::regex wellFormed(
        R"(^\[[0-9]+\.[0-9]{6}s\]\[BOOT_TRACE\]\[SK\] Start baseApp success appName=(.*), binPath=(.*), )"
        R"(pid=([0-9]+), isDelayCoreAffinity_=0$)");
    static const std::regex loose(R"(Start baseApp success appName=([^,]*), binPath=([^,]*), pid=([0-9]+))");
    std::vector<BaseAppStart> starts;
    for (const std::string& line : daemon.Lines()) {
        std::string text = LogText(line);
        if (text.find("Start baseApp success appName=") == std::string::npos) {
            continue;
        }
        std::smatch match;
        BaseAppStart start;
        start.wellFormed = std::regex_match(text, match, wellFormed);
        if (start.wellFormed || std::regex_search(text, match, loose)) {
            start.name = match[1];
            start.binPath = match[2];
            start.pid = static_cast<pid_t>(std::stol(match[3]));
        }
        starts.push_back(start);
    }
    return starts;
}

std::vector<pid_t> StartedPids(const DaemonProcess& daemon, const std::string& name)
{
    std::vector<pid_t> pids;
    for (const BaseAppStart& start : BaseAppStarts(daemon)) {
        if (start.name == name) {
            pids.push_back(start.pid);
        }
    }
    return pids;
}

std::map<pid_t, char> ChildrenOf(pid_t parent)
{
    std::map<pid_t, char> children;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return children;
    }
    while (struct dirent* entry = readdir(proc)) {
        char* end = nullptr;
        long pid = strtol(entry->d_name, &end, 10);
        char state = 0;
        pid_t ppid = 0;
        if (pid > 0 && *end == '\0' && ReadStat(entry->d_name, state, ppid) && ppid == parent) {
            children[static_cast<pid_t>(pid)] = state;
        }
    }
    closedir(proc);
    return children;
}

} // namespace Test
} // namespace Stavik
