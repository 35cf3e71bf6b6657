#include "manifest/manifest_values.h"

#include <syslog.h>

#include <limits>

#include "core/log.h"
#include "manifest/scalar_value.h"

namespace {

template <typename Element, typename Target>
bool ReadSequence(const TreeNode& node, const FaultSpot& spot, const std::string& expected, Target& value)
{
    if (node.kind != TreeNode::Kind::SEQUENCE) {
        ReportBadValue(spot, node, expected);
        return false;
    }
    Target result;
    for (const auto& item : node.items) {
        Element element{};
        if (!ReadValue(*item, spot, element)) {
            return false;
        }
        result.insert(result.end(), element);
    }
    value = std::move(result);
    return true;
}

} // namespace

FaultSpot FaultSpot::Below(const std::string& inner) const
{
    return FaultSpot{path, entry, key.empty() ? inner : key + "." + inner};
}

std::string SpotText(const FaultSpot& spot, int line)
{
    std::string text = "manifest " + spot.path + " line " + std::to_string(line);
    if (!spot.entry.empty()) {
        text += ", entry '" + spot.entry + "'";
    }
    if (!spot.key.empty()) {
        text += ", key '" + spot.key + "'";
    }
    return text;
}

void ReportFault(const FaultSpot& spot, int line, const std::string& what)
{
    Stavik::Syslog(LOG_ERR, "Stavik: %s: %s", SpotText(spot, line).c_str(), what.c_str());
}

void ReportBadValue(const FaultSpot& spot, const TreeNode& node, const std::string& expected)
{
    ReportFault(spot, node.line, "expected " + expected + ", got " + node.Describe());
}

void ReportWarning(const FaultSpot& spot, int line, const std::string& why)
{
    Stavik::Syslog(LOG_WARNING, "Stavik: %s: %s", SpotText(spot, line).c_str(), why.c_str());
}

std::string KeyText(const TreeNode& key)
{
    return key.kind == TreeNode::Kind::SCALAR ? key.text : "<" + key.Describe() + ">";
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::string& value)
{
    if (node.kind == TreeNode::Kind::NONE) {
        value.clear();
        return true;
    }
    if (node.kind != TreeNode::Kind::SCALAR) {
        ReportBadValue(spot, node, "a string");
        return false;
    }
    value = node.text;
    return true;
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, uint32_t& value)
{
    uint64_t parsed = 0;
    if (node.kind != TreeNode::Kind::SCALAR ||
        !ParseUnsigned(node.text, std::numeric_limits<uint32_t>::max(), parsed)) {
        ReportBadValue(spot, node, "an unsigned integer (0 to 4294967295)");
        return false;
    }
    value = static_cast<uint32_t>(parsed);
    return true;
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, int32_t& value)
{
    int64_t parsed = 0;
    if (node.kind != TreeNode::Kind::SCALAR ||
        !ParseSigned(node.text, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max(), parsed)) {
        ReportBadValue(spot, node, "an integer (-2147483648 to 2147483647)");
        return false;
    }
    value = static_cast<int32_t>(parsed);
    return true;
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, bool& value)
{
    if (node.kind != TreeNode::Kind::SCALAR || !ParseBool(node.text, value)) {
        ReportBadValue(spot, node, "true or false");
        return false;
    }
    return true;
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::vector<std::string>& value)
{
    return ReadSequence<std::string>(node, spot, "a list of strings", value);
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::set<std::string>& value)
{
    return ReadSequence<std::string>(node, spot, "a list of strings", value);
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::vector<uint32_t>& value)
{
    return ReadSequence<uint32_t>(node, spot, "a list of unsigned integers", value);
}

bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::map<std::string, std::string>& value)
{
    if (node.kind != TreeNode::Kind::MAP) {
        ReportBadValue(spot, node, "a map of strings");
        return false;
    }
    std::map<std::string, std::string> result;
    for (const auto& pair : node.pairs) {
        if (pair.first->kind != TreeNode::Kind::SCALAR) {
            ReportBadValue(spot, *pair.first, "a string key");
            return false;
        }
        if (!ReadValue(*pair.second, spot.Below(pair.first->text), result[pair.first->text])) {
            return false;
        }
    }
    value = std::move(result);
    return true;
}
