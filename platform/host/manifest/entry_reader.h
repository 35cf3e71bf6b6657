#ifndef STAVIK_PLATFORM_HOST_MANIFEST_ENTRY_READER_H
#define STAVIK_PLATFORM_HOST_MANIFEST_ENTRY_READER_H

#include <string>

#include "manifest/entry_keys.h"
#include "manifest/yaml_tree.h"

// Reads one entry of the apps sequence. False after a logged fault; the
// entry is then not to be used.
bool ReadEntry(const TreeNode& entry, const std::string& path, EntryFields& fields);

#endif
