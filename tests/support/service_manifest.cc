#include "tests/support/service_manifest.h"

#include <nlohmann/json.hpp>
#include <sstream>

namespace Stavik {
namespace Test {
namespace {

// Values go in their JSON form, which YAML reads as double-quoted scalars and
// flow collections: tokens like "&&", "$(x)" and patterns like "${a*}" reach
// the daemon as they are.
std::string EntryText(const AppEntry& entry)
{
    std::vector<std::pair<std::string, std::string>> keys = {{"name", nlohmann::json(entry.name).dump()}};
    auto add = [&keys](const char* key, bool absent, const nlohmann::json& value) {
        if (!absent) {
            keys.emplace_back(key, value.dump());
        }
    };
    add("bin_path", entry.binPath.empty(), entry.binPath);
    add("args", entry.args.empty(), entry.args);
    add("env", entry.env.empty(), entry.env);
    add("uid", entry.uid == 0, entry.uid);
    add("gid", entry.gid == 0, entry.gid);
    add("depends", entry.depends.empty(), entry.depends);
    add("startup_entry_path", entry.startupEntryPath.empty(), entry.startupEntryPath);
    keys.insert(keys.end(), entry.more.begin(), entry.more.end());
    std::string text;
    for (const auto& key : keys) {
        text += (text.empty() ? "  - " : "    ") + key.first + ": " + key.second + "\n";
    }
    return text;
}

std::map<std::string, std::string> KeyValueLines(const std::string& text, char lineEnd)
{
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line, lineEnd);) {
        size_t equals = line.find('=');
        if (equals != std::string::npos) {
            values[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return values;
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
    AppEntry entry = ProbeApp(name).With("reporting", "true");
    entry.startupEntryPath = startupEntryPath;
    return entry;
}

AppEntry ToolOwner(const std::string& name, const std::vector<std::string>& requests)
{
    AppEntry entry = ProbeApp(name).With("reporting", "true");
    entry.binPath = BuiltProgram("client/stavik-owner");
    entry.args = {"--name", name};
    for (const std::string& request : requests) {
        entry.args.insert(entry.args.end(), {"--request", request});
    }
    return entry;
}

std::map<std::string, std::string> ReadProbeRecord(const std::string& path)
{
    return KeyValueLines(ReadWholeFile(path), '\n');
}

std::map<std::string, std::string> AwaitProbeRecord(const std::string& path, int timeoutMs)
{
    WaitUntil([&] { return !ReadProbeRecord(path).empty(); }, timeoutMs);
    return ReadProbeRecord(path);
}

std::map<std::string, std::string> ProbeEnv(const std::map<std::string, std::string>& record)
{
    std::map<std::string, std::string> env;
    for (const auto& entry : record) {
        if (entry.first.compare(0, 4, "env.") == 0) {
            env[entry.first.substr(4)] = entry.second;
        }
    }
    return env;
}

std::map<std::string, std::string> ProcessEnviron(pid_t pid)
{
    return KeyValueLines(ReadWholeFile("/proc/" + std::to_string(pid) + "/environ"), '\0');
}

} // namespace Test
} // namespace Stavik
