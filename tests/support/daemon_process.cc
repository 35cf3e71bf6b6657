#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>

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

std::string LogText(const std::string& line)
{
    static const std::regex prefix(R"(^(kmsg )?STAVIK\[[0-9]+\] <[0-9]> )");
    std::smatch match;
    return std::regex_search(line, match, prefix) ? match.suffix().str() : line;
}

namespace {

// The daemon in this sandbox: its root, its IPC directory, a log copy to stderr.
std::map<std::string, std::string> DaemonEnv(const Sandbox& sandbox, std::map<std::string, std::string> env)
{
    env.insert({{"STAVIK_SYSROOT", sandbox.Root()}, {"STAVIK_LOG_STDERR", "1"}, {"TUBIX_DIR", sandbox.TubixDir()}});
    return env;
}

} // namespace

DaemonProcess::DaemonProcess(const Sandbox& sandbox, const std::vector<std::string>& args,
                             std::map<std::string, std::string> extraEnv)
    : DaemonProcess(BuiltProgram("stavik-daemon"), args, DaemonEnv(sandbox, std::move(extraEnv)))
{
}

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& args,
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
    for (ssize_t length; (length = read(fd, buffer, sizeof(buffer))) > 0;) {
        std::lock_guard<std::mutex> guard(mutex_);
        partial_.append(buffer, static_cast<size_t>(length));
        for (size_t newline; (newline = partial_.find('\n')) != std::string::npos; partial_.erase(0, newline + 1)) {
            lines_.push_back(partial_.substr(0, newline));
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
    long at = -1;
    WaitUntil([&] { return (at = IndexOf(text)) >= 0; }, timeoutMs);
    return at < 0 ? "" : Lines()[static_cast<size_t>(at)];
}

long DaemonProcess::Find(const std::function<bool(const std::string&)>& match, size_t n) const
{
    std::vector<std::string> lines = Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (match(lines[i]) && n-- == 0) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

size_t DaemonProcess::Count(const std::function<bool(const std::string&)>& match) const
{
    std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), match));
}

size_t DaemonProcess::CountLines(const std::string& text) const
{
    return Count([&](const std::string& line) { return line.find(text) != std::string::npos; });
}

long DaemonProcess::IndexOf(const std::string& text, size_t n) const
{
    return Find([&](const std::string& line) { return line.find(text) != std::string::npos; }, n);
}

long DaemonProcess::IndexOfExact(const std::string& text) const
{
    return Find([&](const std::string& line) { return LogText(line) == text; }, 0);
}

size_t DaemonProcess::CountExact(const std::string& text) const
{
    return Count([&](const std::string& line) { return LogText(line) == text; });
}

bool DaemonProcess::WaitForExact(const std::string& text, int timeoutMs) const
{
    return WaitUntil([&] { return IndexOfExact(text) >= 0; }, timeoutMs);
}

std::vector<StartLine> DaemonProcess::Starts(const std::string& kind) const
{
    const std::regex form(kind + " appName=([^,]*), (binPath=([^,]*), )?(child_)?pid=(-?[0-9]+)");
    std::vector<StartLine> starts;
    std::vector<std::string> lines = Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        std::smatch match;
        if (std::regex_search(lines[i], match, form)) {
            starts.push_back({match[1], match[3], static_cast<pid_t>(std::stol(match[5])), static_cast<long>(i)});
        }
    }
    return starts;
}

std::vector<pid_t> DaemonProcess::StartedPids(const std::string& name) const
{
    std::vector<pid_t> pids;
    for (const StartLine& start : Starts()) {
        if (start.name == name) {
            pids.push_back(start.pid);
        }
    }
    return pids;
}

int DaemonProcess::WaitExit(int timeoutMs)
{
    WaitUntil([&] {
        reaped_ = reaped_ || (pid_ > 0 && waitpid(pid_, &exitStatus_, WNOHANG) == pid_);
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
