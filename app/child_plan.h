#ifndef STAVIK_APP_CHILD_PLAN_H
#define STAVIK_APP_CHILD_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "app/child_text.h"
#include "app/user_groups.h"
#include "resource/core_affinity_mgr.h"
#include "zul.h"

namespace Stavik {
namespace App {

// A list of C strings ending in a null pointer, as execve takes them.
class CStringList {
public:
    void Append(const std::string& text) { texts_.push_back(text); }
    // "KEY=VALUE" as setenv(key, value, 1) would leave it: an entry of the key
    // is replaced in place, a new key goes to the end. False, and no change,
    // for a key setenv refuses (empty, or holding '=').
    bool SetEnv(const std::string& key, const std::string& value);
    // Parent: the pointer vector, valid until the list changes.
    void Seal();
    // Child: no allocation.
    char** Data() { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> pointers_;
};

// Everything a child needs between fork and exec, made by the parent: a
// daemon with many threads may hold any lock at the fork, so the child makes
// only async-signal-safe calls, apart from the naming service's ZULInitProc.
struct ChildPlan {
    UserGroups groups;
    int32_t niceIncrement = 0;
    int pipeFd = -1;
    CStringList argv;
    // The whole environment of the program, the daemon's own included.
    CStringList env;
    // Failures of the environment steps, all known before the fork.
    std::string envFragments;
    AppConfig zulConfig;
    // The cgroup tasks files the child joins, in order, and its core mask.
    std::vector<std::string> cgroupTasks;
    CoreBinding binding;
    ChildText text;
};

} // namespace App
} // namespace Stavik

#endif
