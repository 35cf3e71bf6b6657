#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

extern char** environ;

namespace Stavik {
namespace Test {

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        usleep(5000);
    }
    return true;
}

std::map<std::string, std::string> SandboxEnv(const Sandbox& sandbox)
{
    return {{"STAVIK_SYSROOT", sandbox.Root()},
            {"STAVIK_LOG_STDERR", "1"},
            {"TUBIX_DIR", sandbox.TubixDir()}};
}

DaemonProcess::DaemonProcess(const Sandbox& sandbox, const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& extraEnv)
{
    std::map<std::string, std::string> env = SandboxEnv(sandbox);
    for (const auto& entry : extraEnv) {
        env[entry.first] = entry.second;
    }
    Start(BuiltProgram("stavik-daemon"), args, env);
}

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                             const std::map<std::string, std::string>& env)
{
    Start(program, args, env);
}

void DaemonProcess::Start(const std::string& program, const std::vector<std::string>& args,
                          const std::map<std::string, std::string>& env)
{
    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) {
        return;
    }
    std::vector<std::string> envText;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text(*entry);
        if (env.count(text.substr(0, text.find('='))) == 0) {
            envText.push_back(text);
        }
    }
    for (const auto& entry : env) {
        envText.push_back(entry.first + "=" + entry.second);
    }
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& text : envText) {
        envp.push_back(&text[0]);
    }
    envp.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        setpgid(0, 0);
        dup2(output[1], STDERR_FILENO);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(output[1]);
    reader_ = std::thread(&DaemonProcess::ReadOutput, this, output[0]);
}

void DaemonProcess::ReadOutput(int fd)
{
    char buffer[4096];
    while (true) {
        ssize_t length = read(fd, buffer, sizeof(buffer));
        if (length <= 0) {
            break;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        partial_.append(buffer, static_cast<size_t>(length));
        size_t newline;
        while ((newline = partial_.find('\n')) != std::string::npos) {
            lines_.push_back(partial_.substr(0, newline));
            partial_.erase(0, newline + 1);
        }
    }
    close(fd);
}

DaemonProcess::~DaemonProcess()
{
    KillGroup();
    if (reader_.joinable()) {
        reader_.join();
    }
}

std::vector<std::string> DaemonProcess::Lines() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

std::string DaemonProcess::Log() const
{
    std::string text;
    for (const std::string& line : Lines()) {
        text += line + "\n";
    }
    return text;
}

std::string DaemonProcess::WaitForLine(const std::string& text, int timeoutMs) const
{
    std::string found;
    WaitUntil([&] {
        for (const std::string& line : Lines()) {
            if (line.find(text) != std::string::npos) {
                found = line;
                return true;
            }
        }
        return false;
    }, timeoutMs);
    return found;
}

size_t DaemonProcess::CountLines(const std::string& text) const
{
    size_t count = 0;
    for (const std::string& line : Lines()) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

long DaemonProcess::IndexOf(const std::string& text) const
{
    std::vector<std::string> lines = Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(text) != std::string::npos) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

int DaemonProcess::WaitExit(int timeoutMs)
{
    WaitUntil([&] {
        if (!reaped_ && pid_ > 0 && waitpid(pid_, &exitStatus_, WNOHANG) == pid_) {
            reaped_ = true;
        }
        return reaped_;
    }, timeoutMs);
    return reaped_ ? exitStatus_ : -1000;
}

void DaemonProcess::Signal(int signal) const
{
    if (pid_ > 0 && !reaped_) {
        kill(pid_, signal);
    }
}

void DaemonProcess::KillGroup()
{
    if (pid_ <= 0) {
        return;
    }
    kill(-pid_, SIGKILL);
    if (!reaped_) {
        waitpid(pid_, &exitStatus_, 0);
        reaped_ = true;
    }
}

} // namespace Test
} // namespace Stavik
