#ifndef STAVIK_TESTS_SUPPORT_PLAYED_OWNERS_H
#define STAVIK_TESTS_SUPPORT_PLAYED_OWNERS_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/owner_session.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {

using Client::OwnerSession;

// Generous bound of every wait for the daemon in these tests.
constexpr int OWNER_WAIT_MS = 20000;

// Owner services played by the test process. The daemon opens its pipe to a
// reporting base service by name, so a session listening under that name
// takes the pipe in place of the started binary.
class PlayedOwners {
public:
    // Points TUBIX_DIR of this process at the sandbox and starts listening, so
    // construct it before the daemon.
    PlayedOwners(const Sandbox& sandbox, const std::vector<std::string>& names);
    // "" when every session listens, else why one doesn't.
    std::string Error() const { return error_; }
    OwnerSession& operator[](const std::string& name) { return *sessions_.at(name); }

private:
    std::map<std::string, std::unique_ptr<OwnerSession>> sessions_;
    std::string error_;
};

// Waits for the daemon's pipe and tells it that the service runs.
bool ReportRunning(OwnerSession& owner);
// Loads the owner's start-up file; false (and the reason in LastError) when the call failed.
bool LoadStartup(OwnerSession& owner);

// The entries of appName in REPORT events at or after `from`.
std::vector<Message::AppStateInfo> EntriesOf(const OwnerSession& owner, const std::string& appName,
                                             size_t from = 0);
std::vector<uint32_t> StatesOf(const std::vector<Message::AppStateInfo>& entries);

// A term of a name nobody knows is answered at once, inside the request. Once
// that answer is back, whatever the owner's earlier requests sent has arrived.
bool Barrier(OwnerSession& owner);

bool ProcessAlive(pid_t pid);
// Whether the process has set the signal to be ignored (SigIgn of its status).
bool IgnoresSignal(pid_t pid, int signal);
// The state letter of /proc/<pid>/stat, 0 when the process is gone.
char ProcessState(pid_t pid);
// Children of a process as /proc shows them: pid to state letter.
std::map<pid_t, char> ChildrenOf(pid_t parent);
// The CPUs this process may use, in order.
std::vector<uint32_t> UsableCpus();
// Cpus_allowed_list of a thread, "" when it is gone.
std::string AllowedList(pid_t pid, pid_t tid);
// pid to permission word, from the host library's file of a sharepool group.
std::map<int32_t, uint32_t> GroupMembers(const Sandbox& sandbox, const std::string& group);
// Exit status and standard output of a shell command line.
std::pair<int, std::string> RunCommand(const std::string& commandLine);

} // namespace Test
} // namespace Stavik

#endif
