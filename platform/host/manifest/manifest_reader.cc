#include "manifest/manifest_reader.h"

#include <syslog.h>

#include "core/log.h"
#include "manifest/entry_reader.h"
#include "manifest/match_selection.h"
#include "manifest/yaml_tree.h"

namespace {

const char APPS_KEY[] = "apps";

// The apps sequence of the root. Layout faults are logged only for an intact
// document: after a syntax error the syntax error is the one to report.
const TreeNode* FindApps(const std::string& path, const TreeNode* root, bool intact)
{
    FaultSpot spot{path, std::string(), APPS_KEY};
    if (root == nullptr || root->kind != TreeNode::Kind::MAP) {
        if (intact) {
            ReportFault(spot, root == nullptr ? 1 : root->line, "the file must be a map with an 'apps' sequence");
        }
        return nullptr;
    }
    for (const auto& pair : root->pairs) {
        if (KeyText(*pair.first) != APPS_KEY) {
            ReportWarning(FaultSpot{path, std::string(), std::string()}, pair.first->line,
                          "unknown key '" + KeyText(*pair.first) + "' ignored");
        }
    }
    const TreeNode* apps = root->Find(APPS_KEY);
    if (apps == nullptr || apps->kind != TreeNode::Kind::SEQUENCE) {
        if (intact) {
            ReportFault(spot, apps == nullptr ? root->line : apps->line,
                        "expected a sequence of entries, got " + (apps == nullptr ? "no such key" : apps->Describe()));
        }
        return nullptr;
    }
    return apps;
}

// After a syntax error the last entry the parser began may have lost keys at
// the fault, so only the entries before it count as read completely.
size_t UsableEntries(const TreeNode& apps, bool intact)
{
    if (intact) {
        return apps.items.size();
    }
    return apps.items.empty() ? 0 : apps.items.size() - 1;
}

} // namespace

ManifestResult ReadManifestFile(const std::string& path, const std::map<std::string, std::string>& matchArgs,
                                std::vector<ApplicationManifest>& out)
{
    YamlDocument doc;
    YamlLoad load = LoadYamlFile(path, doc);
    if (load == YamlLoad::UNREADABLE) {
        Stavik::Syslog(LOG_ERR, "Stavik: manifest %s: cannot be read: %s", path.c_str(), doc.fault.c_str());
        return MANIFEST_UNREADABLE;
    }
    bool intact = load == YamlLoad::OK;
    if (!intact) {
        Stavik::Syslog(LOG_ERR, "Stavik: manifest %s line %d: YAML syntax error: %s", path.c_str(), doc.faultLine,
                       doc.fault.c_str());
    }
    const TreeNode* apps = FindApps(path, doc.root.get(), intact);
    if (apps == nullptr) {
        return intact ? MANIFEST_BAD_LAYOUT : MANIFEST_SYNTAX_ERROR;
    }
    size_t usable = UsableEntries(*apps, intact);
    // A large manifest would otherwise hold the entries twice while the list grows.
    out.reserve(out.size() + usable);
    for (size_t index = 0; index < usable; ++index) {
        EntryFields fields;
        if (!ReadEntry(*apps->items[index], path, fields)) {
            return MANIFEST_BAD_VALUE;
        }
        if (!IsEntrySelected(fields.match, matchArgs)) {
            Stavik::Syslog(LOG_DEBUG, "Stavik: manifest %s: entry '%s' left out, its match pairs don't fit",
                           path.c_str(), fields.data.appName.c_str());
            continue;
        }
        out.emplace_back(std::move(fields.data));
    }
    return intact ? MANIFEST_OK : MANIFEST_SYNTAX_ERROR;
}
