#ifndef STAVIK_SUPERVISION_HELPER_CHILDREN_H
#define STAVIK_SUPERVISION_HELPER_CHILDREN_H

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

namespace Stavik {

// Short-lived processes the daemon runs for itself, such as the digest tool.
// They are children of the daemon like the applications, so the wait thread
// sees them die; it leaves them to the thread that started them, which
// collects them itself, within a time limit.
class HelperChildren {
public:
    static HelperChildren& Instance();

    // Runs command through /bin/sh in a process group of its own, standard
    // input from /dev/null, standard output into outputFd (close-on-exec).
    // -1 with errno when it can't be started.
    pid_t StartShell(const std::string& command, int& outputFd);
    // Runs command through /bin/sh with the daemon's own standard output and
    // waits for its end, as system() would, but out of the wait thread's
    // reach. The wait status, or -1 with errno when it can't be started.
    int RunShell(const std::string& command);
    // Collects the helper and gives its wait status; once deadlineNs (steady
    // clock) has passed, its whole process group is killed first.
    int Finish(pid_t pid, uint64_t deadlineNs);
    // For the wait thread, about a dead child it found: true when the status is
    // not an application's, as the pid is a helper's, or was one and has been
    // collected meanwhile.
    bool Claims(pid_t pid);

private:
    HelperChildren() = default;
    HelperChildren(const HelperChildren&) = delete;
    HelperChildren& operator=(const HelperChildren&) = delete;

    // posix_spawn's result; the child writes its standard output to outputFd,
    // or to the daemon's own when it is negative.
    int Spawn(const std::string& command, int outputFd, pid_t& pid);

    // Taken around the start and the collection of a helper, so that the wait
    // thread never sees a helper's pid unregistered while it is one.
    std::mutex mutex_;
    std::set<pid_t> pids_;
};

} // namespace Stavik

#endif
