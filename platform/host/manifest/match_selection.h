#ifndef STAVIK_PLATFORM_HOST_MANIFEST_MATCH_SELECTION_H
#define STAVIK_PLATFORM_HOST_MANIFEST_MATCH_SELECTION_H

#include <map>
#include <string>

// Whether an entry with the given match pairs is kept for the caller's match
// data: every pair of the entry must appear in it with an equal value. Empty
// match data keeps every entry, and an entry without pairs is always kept.
bool IsEntrySelected(const std::map<std::string, std::string>& entryMatch,
                     const std::map<std::string, std::string>& matchArgs);

#endif
