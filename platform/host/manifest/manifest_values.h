#ifndef STAVIK_PLATFORM_HOST_MANIFEST_MANIFEST_VALUES_H
#define STAVIK_PLATFORM_HOST_MANIFEST_MANIFEST_VALUES_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "manifest/yaml_tree.h"

// Where in a manifest a value stands, for the log line of a fault.
struct FaultSpot {
    std::string path;
    std::string entry;
    std::string key;

    // The spot of a key below this one, named "outer.inner".
    FaultSpot Below(const std::string& inner) const;
};

// "manifest <path> line <n>, entry '<name>', key '<key>'".
std::string SpotText(const FaultSpot& spot, int line);
// Error line about a value that stops the reading.
void ReportFault(const FaultSpot& spot, int line, const std::string& what);
// Error line: a value of the wrong type or out of range.
void ReportBadValue(const FaultSpot& spot, const TreeNode& node, const std::string& expected);
// Warning line: something is left out or taken in place of something else.
void ReportWarning(const FaultSpot& spot, int line, const std::string& why);

// Typed reads of a value. On a wrong type they log the fault and return
// false, leaving the target as it was. An empty value reads as "" where a
// string is expected.
bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::string& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, uint32_t& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, int32_t& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, bool& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::vector<std::string>& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::set<std::string>& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::vector<uint32_t>& value);
bool ReadValue(const TreeNode& node, const FaultSpot& spot, std::map<std::string, std::string>& value);

// The text of a map key, or a description of a key that is no scalar.
std::string KeyText(const TreeNode& key);

#endif
