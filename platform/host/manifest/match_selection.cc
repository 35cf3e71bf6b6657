#include "manifest/match_selection.h"

bool IsEntrySelected(const std::map<std::string, std::string>& entryMatch,
                     const std::map<std::string, std::string>& matchArgs)
{
    if (matchArgs.empty()) {
        return true;
    }
    for (const auto& pair : entryMatch) {
        auto found = matchArgs.find(pair.first);
        if (found == matchArgs.end() || found->second != pair.second) {
            return false;
        }
    }
    return true;
}
