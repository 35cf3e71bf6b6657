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

// A real daemon process (or any program) in its own process group, with its
// standard error collected line by line. Killed with its whole group at the end.
class DaemonProcess {
public:
    DaemonProcess(const Sandbox& sandbox, const std::vector<std::string>& args,
                  const std::map<std::string, std::string>& extraEnv = {});
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
    // Index of the first line holding text, or -1.
    long IndexOf(const std::string& text) const;
    // Exit status of the process, waiting up to timeoutMs; -1000 if it still runs.
    int WaitExit(int timeoutMs = 10000);
    void Signal(int signal) const;
    void KillGroup();

private:
    void Start(const std::string& program, const std::vector<std::string>& args,
               const std::map<std::string, std::string>& env);
    void ReadOutput(int fd);

    pid_t pid_ = -1;
    bool reaped_ = false;
    int exitStatus_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::string partial_;
    std::thread reader_;
};

// Environment for a daemon in this sandbox: root, IPC dir, log copy to stderr.
std::map<std::string, std::string> SandboxEnv(const Sandbox& sandbox);

} // namespace Test
} // namespace Stavik

#endif
