#include "ipc_test_env.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace IpcTest {
namespace {

void SleepMs(long ms)
{
    struct timespec left = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void RemoveTree(const std::string& path)
{
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        unlink(path.c_str());
        return;
    }
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            RemoveTree(path + "/" + name);
        }
    }
    closedir(dir);
    rmdir(path.c_str());
}

std::string HelperPath()
{
    char self[PATH_MAX] = {};
    ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string path(self, length > 0 ? static_cast<size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + "ipc_peer";
}

} // namespace

void TubixDirTest::SetUp()
{
    char pattern[] = "/tmp/tubix-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setenv("TUBIX_DIR", dir_.c_str(), 1);
    unsetenv("TUBIX_OPEN_TIMEOUT_MS");
}

void TubixDirTest::TearDown()
{
    RemoveTree(dir_);
}

Peer::Peer(const std::string& procName, const std::vector<std::string>& args)
{
    // Everything exec needs is built before the fork: the child of a threaded process only execs.
    std::vector<std::string> words = {HelperPath()};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<std::string> env = {"PROC_NAME=" + procName};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, "PROC_NAME=", 10) != 0) {
            env.push_back(*entry);
        }
    }
    std::vector<char*> argv;
    std::vector<char*> envp;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    for (std::string& entry : env) {
        envp.push_back(&entry[0]);
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
}

Peer::~Peer()
{
    Kill();
}

void Peer::Kill()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

int Peer::Wait(int timeoutMs)
{
    int status = 0;
    bool ended = WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs);
    if (!ended) {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        SleepMs(2);
    }
    return true;
}

int32_t OpenService(const std::string& name, TubixRequestHandler handler, int32_t timeoutMs)
{
    TubixOpenParam param{};
    param.procName = name.c_str();
    param.handler = std::move(handler);
    param.priority = -1;
    param.msgMode = 1;
    param.retryOnMissing = 1;
    param.timeoutMs = timeoutMs;
    return TubixOpen(&param);
}

std::string Rpc(int32_t fd, const std::string& text, uint32_t timeoutMs)
{
    char answer[256];
    TubixRequest req{0, text.data(), static_cast<uint32_t>(text.size())};
    TubixResponse resp{0, answer, sizeof(answer)};
    int32_t rc = TubixTimedRPCSync(fd, &req, &resp, timeoutMs);
    if (rc != 0) {
        return "rc=" + std::to_string(rc);
    }
    return std::string(answer, resp.size);
}

std::vector<uint8_t> SeqMessage(uint32_t seq)
{
    std::vector<uint8_t> message(5 + seq % 97, static_cast<uint8_t>(seq));
    message[0] = 'S';
    memcpy(&message[1], &seq, sizeof(seq));
    return message;
}

int32_t SendPatiently(int32_t fd, const std::vector<uint8_t>& message)
{
    int32_t rc = -EAGAIN;
    for (int attempt = 0; attempt < 20000 && rc == -EAGAIN; ++attempt) {
        rc = TubixSendRequest(fd, TubixRequest{0, message.data(), static_cast<uint32_t>(message.size())});
        if (rc == -EAGAIN) {
            SleepMs(1);
        }
    }
    return rc;
}

size_t CountEntries(const char* dir)
{
    size_t count = 0;
    DIR* handle = opendir(dir);
    while (handle != nullptr && readdir(handle) != nullptr) {
        ++count;
    }
    if (handle != nullptr) {
        closedir(handle);
    }
    return count;
}

} // namespace IpcTest
