#include "manifest/entry_reader.h"

#include <syslog.h>

#include <set>

#include "core/log.h"

namespace {

const char NAME_KEY[] = "name";

// The name comes first so that every later line can tell which entry it is about.
bool ReadName(const TreeNode& entry, const FaultSpot& spot, EntryFields& fields)
{
    const TreeNode* name = entry.Find(NAME_KEY);
    if (name != nullptr && !ReadValue(*name, spot.Below(NAME_KEY), fields.data.appName)) {
        return false;
    }
    if (fields.data.appName.empty()) {
        ReportWarning(spot, entry.line, "entry has no name");
    }
    return true;
}

bool ReadKey(const TreeNode& key, const TreeNode& value, const FaultSpot& spot, EntryFields& fields)
{
    std::string text = KeyText(key);
    const auto& readers = EntryKeyReaders();
    auto reader = readers.find(text);
    if (reader == readers.end()) {
        ReportWarning(spot, key.line, "unknown key '" + text + "' ignored");
        return true;
    }
    // An empty value ("key:" or "key: ~") keeps the default.
    if (value.kind == TreeNode::Kind::NONE) {
        return true;
    }
    return reader->second(value, spot.Below(text), fields);
}

} // namespace

bool ReadEntry(const TreeNode& entry, const std::string& path, EntryFields& fields)
{
    FaultSpot spot{path, std::string(), std::string()};
    if (entry.kind != TreeNode::Kind::MAP) {
        ReportBadValue(spot.Below("apps"), entry, "a map for each entry");
        return false;
    }
    if (!ReadName(entry, spot, fields)) {
        return false;
    }
    spot.entry = fields.data.appName;
    std::set<std::string> seen;
    for (const auto& pair : entry.pairs) {
        std::string key = KeyText(*pair.first);
        if (!seen.insert(key).second) {
            ReportWarning(spot, pair.first->line, "key '" + key + "' given again, the last value is used");
        }
        if (key == NAME_KEY) {
            continue;
        }
        if (!ReadKey(*pair.first, *pair.second, spot, fields)) {
            return false;
        }
    }
    return true;
}
