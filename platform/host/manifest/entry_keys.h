#ifndef STAVIK_PLATFORM_HOST_MANIFEST_ENTRY_KEYS_H
#define STAVIK_PLATFORM_HOST_MANIFEST_ENTRY_KEYS_H

#include <functional>
#include <map>
#include <string>

#include "application_manifest.h"
#include "manifest/manifest_values.h"

// What one entry of a manifest says: its data and its selection pairs.
struct EntryFields {
    ManifestData data;
    std::map<std::string, std::string> match;
};

// Reads the value of one key into the entry; false after a logged fault.
using KeyReader = std::function<bool(const TreeNode& value, const FaultSpot& spot, EntryFields& fields)>;

// The keys an entry may have besides its name, which is read first, with their readers.
const std::map<std::string, KeyReader>& EntryKeyReaders();

#endif
