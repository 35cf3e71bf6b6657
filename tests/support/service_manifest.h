#ifndef STAVIK_TESTS_SUPPORT_SERVICE_MANIFEST_H
#define STAVIK_TESTS_SUPPORT_SERVICE_MANIFEST_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/daemon_process.h"

namespace Stavik {
namespace Test {

struct HeartBeatSpec {
    bool enable = false;
    uint32_t interval = 0;
    uint32_t count = 0;
};

// One entry of a base-service manifest or of a start-up entry file; empty or
// default members are left out.
struct AppEntry {
    std::string name;
    std::string binPath;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::string restart;
    std::vector<std::string> depends;
    int nice = 0;
    std::optional<HeartBeatSpec> heartBeat;
    std::map<std::string, std::string> match;
    std::string startupEntryPath;
    std::string cfgPath;
    std::string vfIdPattern;
    std::optional<int> startupPriority;
    std::optional<int> processType;
    std::optional<uint32_t> termTimeoutMs;
    bool reporting = false;
    bool dynamicPara = false;
    bool forceTerm = false;
    std::vector<uint32_t> coreAffinity;
    std::string resGroup;
    std::string cpuset;
    std::string blkioGroup;
    std::map<std::string, std::string> cgroupPath;
    // Group and permission text, in order.
    std::vector<std::pair<std::string, std::string>> sharepoolGroups;
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

// The "key=value" lines of a probe_child record; {} while it doesn't exist.
std::map<std::string, std::string> ReadProbeRecord(const std::string& path);
// The env.NAME lines of a record, as NAME to value.
std::map<std::string, std::string> ProbeEnv(const std::map<std::string, std::string>& record);
// The environment a process was started with.
std::map<std::string, std::string> ProcessEnviron(pid_t pid);
// Readable differences between two maps, "" when equal.
std::string MapDiff(const std::map<std::string, std::string>& expected,
                    const std::map<std::string, std::string>& actual);
std::set<gid_t> SupplementaryGroupsOf(uid_t uid);
std::set<gid_t> ParseGroups(const std::string& text);

// The text of a daemon log line behind "STAVIK[pid] <level> "; the line itself
// when it has no such prefix (a child's own output).
std::string LogText(const std::string& line);
// Index of the first line whose text is exactly text, or -1.
long IndexOfExact(const DaemonProcess& daemon, const std::string& text);
bool WaitForExactLine(const DaemonProcess& daemon, const std::string& text, int timeoutMs);
size_t CountExact(const DaemonProcess& daemon, const std::string& text);

// One "Start baseApp success" line, in log order.
struct BaseAppStart {
    std::string name;
    std::string binPath;
    pid_t pid = 0;
    bool wellFormed = false;
};
std::vector<BaseAppStart> BaseAppStarts(const DaemonProcess& daemon);
std::vector<pid_t> StartedPids(const DaemonProcess& daemon, const std::string& name);

// Children of a process as /proc shows them: pid to state letter.
std::map<pid_t, char> ChildrenOf(pid_t parent);

} // namespace Test
} // namespace Stavik

#endif
