#ifndef STAVIK_TESTS_SUPPORT_OWNER_MANIFEST_H
#define STAVIK_TESTS_SUPPORT_OWNER_MANIFEST_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"

namespace Stavik {
namespace Test {

// One entry of a base-service manifest or of a start-up entry file, with the
// keys that owners and their applications use; empty members are left out.
struct AppEntry {
    std::string name;
    std::string binPath;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::vector<std::string> depends;
    std::map<std::string, std::string> match;
    std::string startupEntryPath;
    std::string vfIdPattern;
    std::optional<int> startupPriority;
    std::optional<uint32_t> termTimeoutMs;
    bool reporting = false;
    bool dynamicPara = false;
    bool forceTerm = false;
};

std::string AppsText(const std::vector<AppEntry>& entries);
// An application whose binary is the test helper probe_child.
AppEntry ProbeApp(const std::string& name, const std::vector<std::string>& args = {});
// A reporting base service that only sleeps: the test process plays its
// pipe under the same name, so the dummy needs to do nothing at all.
AppEntry DummyOwner(const std::string& name, const std::string& startupEntryPath = "");
// A reporting base service that is a real stavik-owner process sending these
// JSON requests once the daemon's pipe is up.
AppEntry ToolOwner(const std::string& name, const std::vector<std::string>& requests);
// Copies a program to a path under the sandbox root, executable, and returns the full path.
std::string CopyProgram(const Sandbox& sandbox, const std::string& program, const std::string& systemPath);

} // namespace Test
} // namespace Stavik

#endif
