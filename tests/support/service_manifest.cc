#include "tests/support/service_manifest.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

namespace Stavik {
namespace Test {
namespace {

// Double-quoted YAML scalar, so that tokens like "&&", "$(x)", patterns like
// "${a*}" and JSON texts reach the daemon as they are.
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

void WriteMap(std::ostream& out, const std::string& key, const std::map<std::string, std::string>& values)
{
    if (values.empty()) {
        return;
    }
    out << "    " << key << ":\n";
    for (const auto& entry : values) {
        out << "      " << Quoted(entry.first) << ": " << Quoted(entry.second) << "\n";
    }
}

void WriteText(std::ostream& out, const std::string& key, const std::string& value)
{
    if (!value.empty()) {
        out << "    " << key << ": " << Quoted(value) << "\n";
    }
}

void WriteList(std::ostream& out, const std::string& key, const std::vector<std::string>& items)
{
    if (!items.empty()) {
        out << "    " << key << ": " << QuotedList(items) << "\n";
    }
}

template <class Number>
void WriteNumber(std::ostream& out, const std::string& key, const std::optional<Number>& value)
{
    if (value) {
        out << "    " << key << ": " << *value << "\n";
    }
}

void WriteFlag(std::ostream& out, const std::string& key, bool value)
{
    if (value) {
        out << "    " << key << ": true\n";
    }
}

std::optional<int64_t> UnlessZero(int64_t value)
{
    return value == 0 ? std::nullopt : std::optional<int64_t>(value);
}

std::string EntryText(const AppEntry& entry)
{
    std::ostringstream out;
    out << "  - name: " << Quoted(entry.name) << "\n";
    WriteText(out, "bin_path", entry.binPath);
    WriteList(out, "args", entry.args);
    WriteNumber(out, "uid", UnlessZero(entry.uid));
    WriteNumber(out, "gid", UnlessZero(entry.gid));
    WriteNumber(out, "nice", UnlessZero(entry.nice));
    WriteList(out, "depends", entry.depends);
    WriteMap(out, "env", entry.env);
    WriteMap(out, "match", entry.match);
    WriteText(out, "restart", entry.restart);
    if (entry.heartBeat) {
        out << "    heartbeat: {enable: " << (entry.heartBeat->enable ? "true" : "false")
            << ", interval: " << entry.heartBeat->interval << ", count: " << entry.heartBeat->count << "}\n";
    }
    WriteText(out, "startup_entry_path", entry.startupEntryPath);
    WriteText(out, "cfg_path", entry.cfgPath);
    WriteText(out, "vf_id_pattern", entry.vfIdPattern);
    WriteNumber(out, "startup_priority", entry.startupPriority);
    WriteNumber(out, "process_type", entry.processType);
    WriteNumber(out, "term_timeout_ms", entry.termTimeoutMs);
    WriteFlag(out, "reporting", entry.reporting);
    WriteFlag(out, "dynamic_para", entry.dynamicPara);
    WriteFlag(out, "force_term", entry.forceTerm);
    if (!entry.coreAffinity.empty()) {
        out << "    core_affinity: [";
        for (size_t i = 0; i < entry.coreAffinity.size(); ++i) {
            out << (i == 0 ? "" : ", ") << entry.coreAffinity[i];
        }
        out << "]\n";
    }
    WriteText(out, "res_group", entry.resGroup);
    WriteText(out, "cpuset", entry.cpuset);
    WriteText(out, "blkio_group", entry.blkioGroup);
    WriteMap(out, "cgroup_path", entry.cgroupPath);
    if (!entry.sharepoolGroups.empty()) {
        out << "    sharepool_groups:\n";
        for (const auto& group : entry.sharepoolGroups) {
            out << "      - {group: " << group.first << ", permission: \"" << group.second << "\"}\n";
        }
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

std::string AppsText(const std::vector<AppEntry>& entries)
{
    std::string text = entries.empty() ? "apps: []\n" : "apps:\n";
    for (const AppEntry& entry : entries) {
        text += EntryText(entry);
    }
    return text;
}

AppEntry ProbeApp(const std::string& name, const std::vector<std::string>& args)
{
    AppEntry entry;
    entry.name = name;
    entry.binPath = BuiltProgram("tests/probe_child");
    entry.args = args;
    return entry;
}

AppEntry DummyOwner(const std::string& name, const std::string& startupEntryPath)
{
    AppEntry entry = ProbeApp(name);
    entry.reporting = true;
    entry.startupEntryPath = startupEntryPath;
    return entry;
}

AppEntry ToolOwner(const std::string& name, const std::vector<std::string>& requests)
{
    AppEntry entry;
    entry.name = name;
    entry.binPath = BuiltProgram("client/stavik-owner");
    entry.args = {"--name", name};
    for (const std::string& request : requests) {
        entry.args.push_back("--request");
        entry.args.push_back(request);
    }
    entry.reporting = true;
    return entry;
}

std::string CopyProgram(const Sandbox& sandbox, const std::string& program, const std::string& systemPath)
{
    std::string path = sandbox.Path(systemPath);
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ifstream in(program, std::ios::binary);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    chmod(path.c_str(), 0755);
    return path;
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
