#ifndef STAVIK_TESTS_SUPPORT_SERVICE_MANIFEST_H
#define STAVIK_TESTS_SUPPORT_SERVICE_MANIFEST_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/daemon_process.h"

namespace Stavik {
namespace Test {

// One entry of a base-service manifest or of a start-up entry file; empty or
// zero members are left out.
struct AppEntry {
    std::string name;
    std::string binPath;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::vector<std::string> depends;
    std::string startupEntryPath;
    // Further keys, each with its value as YAML text ("on-failure", "[1, 2]", "{enable: true}").
    std::vector<std::pair<std::string, std::string>> more;

    AppEntry& With(const std::string& key, const std::string& yaml)
    {
        more.emplace_back(key, yaml);
        return *this;
    }
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

// The "key=value" lines of a probe_child record; {} while it doesn't exist.
std::map<std::string, std::string> ReadProbeRecord(const std::string& path);
// The record of path once it is there, waiting up to timeoutMs.
std::map<std::string, std::string> AwaitProbeRecord(const std::string& path, int timeoutMs = 20000);
// The env.NAME lines of a record, as NAME to value.
std::map<std::string, std::string> ProbeEnv(const std::map<std::string, std::string>& record);
// The environment a process was started with.
std::map<std::string, std::string> ProcessEnviron(pid_t pid);

} // namespace Test
} // namespace Stavik

#endif
