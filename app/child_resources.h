#ifndef STAVIK_APP_CHILD_RESOURCES_H
#define STAVIK_APP_CHILD_RESOURCES_H

#include <cstddef>
#include <cstdint>

#include "app/app_info.h"
#include "app/child_plan.h"

// The cgroups and cores of a new child: the parent turns the record into
// paths and a kernel mask, the child applies them with plain system calls.

namespace Stavik {
namespace App {

// Parent: fills the tasks files and the binding of the plan; returns the room
// the child's fragments about them may take.
size_t PrepareChildResources(const AppInfo& app, ChildPlan& plan);

// Child: appends pid to each tasks file of the plan, unless this is a quick
// start; each missing file adds a sentence.
void AddPlannedCgroups(const ChildPlan& plan, int64_t pid, ChildText& text);

} // namespace App
} // namespace Stavik

#endif
