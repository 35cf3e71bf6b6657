#ifndef STAVIK_TESTS_SUPPORT_DAEMON_PROCESS_H
#define STAVIK_TESTS_SUPPORT_DAEMON_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/sandbox.h"

namespace Stavik {
namespace Test {

// Polls a condition until it holds or the time is up; bounded, never a fixed sleep.
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);

// The text of a daemon log line behind "STAVIK[pid] <level> "; the line itself
// when it has no such prefix (a child's own output).
std::string LogText(const std::string& line);

// A "<kind> appName=NAME, [binPath=PATH, ]pid=PID" (or child_pid=) line of the daemon's log.
struct StartLine {
    std::string name;
    std::string binPath;
    pid_t pid = 0;
    long index = -1;
};

// A real daemon process (or any program) in its own process group, with its
// standard error collected line by line. Killed with its whole group at the end.
class DaemonProcess {
public:
    DaemonProcess(const Sandbox& sandbox, const std::vector<std::string>& args,
                  std::map<std::string, std::string> extraEnv = {});
    DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                  const std::map<std::string, std::string>& env);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t Pid() const { return pid_; }
    std::vector<std::string> Lines() const;
    std::string Log() const;
    // First line holding text, waiting for it up to timeoutMs; "" when none came.
    std::string WaitForLine(const std::string& text, int timeoutMs = 10000) const;
    size_t CountLines(const std::string& text) const;
    // Index of the n-th line (from 0) holding text, or -1.
    long IndexOf(const std::string& text, size_t n = 0) const;
    // The same for lines whose LogText is exactly text.
    long IndexOfExact(const std::string& text) const;
    size_t CountExact(const std::string& text) const;
    bool WaitForExact(const std::string& text, int timeoutMs = 20000) const;
    // The start lines of one kind ("Start baseApp success", ...), in log order.
    std::vector<StartLine> Starts(const std::string& kind = "Start baseApp success") const;
    // The pids of the base-service starts of name.
    std::vector<pid_t> StartedPids(const std::string& name) const;
    // Exit status of the process, waiting up to timeoutMs; -1000 if it still runs.
    int WaitExit(int timeoutMs = 10000);
    void Signal(int signal) const;
    void KillGroup();

private:
    void ReadOutput(int fd);
    long Find(const std::function<bool(const std::string&)>& match, size_t n) const;
    size_t Count(const std::function<bool(const std::string&)>& match) const;

    pid_t pid_ = -1;
    bool reaped_ = false;
    int exitStatus_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::string partial_;
    std::thread reader_;
};

} // namespace Test
} // namespace Stavik

#endif
