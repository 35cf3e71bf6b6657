#ifndef STAVIK_APP_CHILD_SETUP_H
#define STAVIK_APP_CHILD_SETUP_H

#include <cstdint>
#include <string>

#include "app/app_info.h"
#include "app/user_groups.h"

// What a freshly forked child does before it becomes the application. A child
// never logs: each failing step appends one fragment ending in ";" to errInfo,
// and the text goes to the daemon's anonymous pipe before exec.

namespace Stavik {
namespace App {

// Up to and including the identity switch: own pid into the record, real-time
// limit, scheduling class, nice (0 leaves it), then groups, gid and uid. A
// failed identity switch sends the text and ends the child with exit code 1;
// otherwise the text gathered so far is returned.
std::string SetUpChild(AppInfo& app, int32_t niceIncrement, const UserGroups& groups);

// Supplementary groups, gid, uid, stopping at the first failure; the group
// list was looked up by the parent.
bool SetAppIdentity(uint32_t uid, uint32_t gid, const UserGroups& groups, std::string& errInfo);

// The environment of each kind; both register the process with the naming service.
void SetGeneralAppEnv(const GeneralAppInfo& app, std::string& errInfo);
void SetBaseAppEnv(const BaseAppInfo& app, std::string& errInfo);

// Security hook, the text to the pipe, then execv of execPath_ with arguments_.
[[noreturn]] void ExecChild(const AppInfo& app, std::string& errInfo);

// Exit code of a child whose execv failed with err: 125 tells an input/output
// error apart from every other failure.
int ExecFailureExitCode(int err);

void AppendErrInfo(std::string& errInfo, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes "app=<name>,pid=<pid>,<errInfo>" to the pipe, unless there is no
// pipe or nothing to tell.
void SendErrInfo(const AppInfo& app, const std::string& errInfo);

} // namespace App
} // namespace Stavik

#endif
