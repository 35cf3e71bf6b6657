#ifndef STAVIK_CORE_PRIORITY_APP_LIST_H
#define STAVIK_CORE_PRIORITY_APP_LIST_H

#include <cstdint>
#include <string>
#include <vector>

#include "application_manifest.h"

namespace Stavik {

// One priority application on its way to start at boot.
struct PriorityAppEntry {
    int32_t priority = -1;
    std::string appName;
    std::string ownerName;
    ApplicationManifest manifest;
};

// Heap order: the top is the lowest priority, then the lowest name in byte order.
struct PriorityAppAfter {
    bool operator()(const PriorityAppEntry& a, const PriorityAppEntry& b) const
    {
        if (a.priority != b.priority) {
            return a.priority > b.priority;
        }
        return a.appName > b.appName;
    }
};

// Kept as a heap with std::push_heap / std::pop_heap and PriorityAppAfter.
using PriorityAppList = std::vector<PriorityAppEntry>;

} // namespace Stavik

#endif
