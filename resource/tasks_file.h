#ifndef STAVIK_RESOURCE_TASKS_FILE_H
#define STAVIK_RESOURCE_TASKS_FILE_H

#include <cstdint>

namespace Stavik {

// Appends id and a newline to a cgroup "tasks" file. False only when the file
// doesn't exist; an open or write error of an existing file isn't looked at.
// Async-signal-safe: a freshly forked child calls it.
bool AppendIdToTasks(const char* path, int64_t id);

} // namespace Stavik

#endif
