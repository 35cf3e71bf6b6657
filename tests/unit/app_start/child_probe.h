#ifndef STAVIK_TESTS_UNIT_APP_START_CHILD_PROBE_H
#define STAVIK_TESTS_UNIT_APP_START_CHILD_PROBE_H

#include <sys/types.h>

#include <string>

#include "tests/support/service_manifest.h"

// Children for the tests: the daemon's anonymous pipe, bounded waits and
// copies of the probe child.

namespace Stavik {
namespace Test {

// A pipe owned by the test, installed as the daemon's child message pipe.
class ChildMsgPipe {
public:
    ChildMsgPipe();
    ~ChildMsgPipe();
    ChildMsgPipe(const ChildMsgPipe&) = delete;
    ChildMsgPipe& operator=(const ChildMsgPipe&) = delete;

    // Everything written so far; never blocks.
    std::string ReadAll();

private:
    int fds_[2] = {-1, -1};
};

// The child's wait status, polled for at most 10 s; -1 when it didn't end (it is then killed).
int ReapChild(pid_t pid);
void KillAndReap(pid_t pid);

void CopyProbe(const std::string& path, mode_t mode, uid_t owner, gid_t group);

// A child that waits for a signal; killed and reaped at the end unless reaped before.
class SleepingChild {
public:
    SleepingChild();
    ~SleepingChild();
    SleepingChild(const SleepingChild&) = delete;
    SleepingChild& operator=(const SleepingChild&) = delete;

    pid_t Pid() const { return pid_; }
    int Reap();

private:
    pid_t pid_ = -1;
};

} // namespace Test
} // namespace Stavik

#endif
