#include "tests/support/owner_manifest.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace Stavik {
namespace Test {
namespace {

// Double-quoted YAML scalar: patterns like "${a*}" and JSON texts pass unchanged.
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

void WriteFlag(std::ostream& out, const std::string& key, bool value)
{
    if (value) {
        out << "    " << key << ": true\n";
    }
}

std::string EntryText(const AppEntry& entry)
{
    std::ostringstream out;
    out << "  - name: " << Quoted(entry.name) << "\n";
    WriteText(out, "bin_path", entry.binPath);
    if (!entry.args.empty()) {
        out << "    args: " << QuotedList(entry.args) << "\n";
    }
    if (!entry.depends.empty()) {
        out << "    depends: " << QuotedList(entry.depends) << "\n";
    }
    WriteMap(out, "env", entry.env);
    WriteMap(out, "match", entry.match);
    WriteText(out, "startup_entry_path", entry.startupEntryPath);
    WriteText(out, "vf_id_pattern", entry.vfIdPattern);
    if (entry.startupPriority) {
        out << "    startup_priority: " << *entry.startupPriority << "\n";
    }
    if (entry.termTimeoutMs) {
        out << "    term_timeout_ms: " << *entry.termTimeoutMs << "\n";
    }
    WriteFlag(out, "reporting", entry.reporting);
    WriteFlag(out, "dynamic_para", entry.dynamicPara);
    WriteFlag(out, "force_term", entry.forceTerm);
    return out.str();
}

} // namespace

std::string AppsText(const std::vector<AppEntry>& entries)
{
    std::string text = "apps:\n";
    for (const AppEntry& entry : entries) {
        text += EntryText(entry);
    }
    return entries.empty() ? "apps: []\n" : text;
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

} // namespace Test
} // namespace Stavik
