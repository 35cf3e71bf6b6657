#ifndef STAVIK_APP_CHILD_SETUP_H
#define STAVIK_APP_CHILD_SETUP_H

#include <cstdint>

#include "app/app_info.h"
#include "app/child_plan.h"

// What a freshly forked child does before it becomes the application, and
// what the parent prepares for it. A child never logs: each failing step adds
// one fragment ending in ";" to its text, and the text goes to the daemon's
// anonymous pipe before exec.

namespace Stavik {
namespace App {

// Parent, before the fork: the group list of the configured user, the
// argument vector, the pipe, the naming-service record, and the room of the
// text. The environment of the kind comes first (BuildGeneralAppEnv,
// BuildBaseAppEnv), since the text makes room for its fragments.
void PrepareChildPlan(const AppInfo& app, int32_t niceIncrement, ChildPlan& plan);

// The whole environment of each kind, on top of the daemon's own, with the
// fragments of the steps that fail. HOME goes in front of a general
// application's manifest variables, so that its manifest may override it,
// and behind a base service's, so that it can't.
void BuildGeneralAppEnv(const GeneralAppInfo& app, ChildPlan& plan);
void BuildBaseAppEnv(const BaseAppInfo& app, ChildPlan& plan);

// Child: real-time limit, scheduling class, nice (0 leaves it), cgroups,
// identity, then the prepared environment, the naming service, the core
// binding, the text to the pipe and the exec. Only async-signal-safe calls,
// apart from ZULInitProc, which runs with the prepared environment in place;
// the program gets the environment as it then stands. A failed identity
// switch ends the child with exit code 1.
[[noreturn]] void RunChild(const AppInfo& app, ChildPlan& plan);

// Supplementary groups, gid, uid, stopping at the first failure; the group
// list was looked up by the parent.
bool SetAppIdentity(uint32_t uid, uint32_t gid, const UserGroups& groups, ChildText& text);

// Exit code of a child whose execv failed with err: 125 tells an input/output
// error apart from every other failure.
int ExecFailureExitCode(int err);

} // namespace App
} // namespace Stavik

#endif
