#include "supervision/integrity.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "app/steady_clock.h"
#include "core/log.h"
#include "core/sk_log.h"
#include "core/sleep.h"
#include "core/sys_root.h"
#include "supervision/helper_children.h"

namespace Stavik {
namespace {

const std::string HASH_CFG_FILE = "/etc/qel/base-plat/stavik-daemon/bin_hash.cfg";
// Longest line of the list, terminator included.
constexpr size_t HASH_LINE_BUF = 256;
constexpr int DIGEST_TRIES = 5;
// The tool's output is read as far as its first line, at most this much.
constexpr size_t DIGEST_TEXT_MAX = 64;
constexpr uint64_t SPAWN_RETRY_PAUSE_NS = NS_PER_MS;
// All tries together; a tool that hangs is killed, so a start never waits longer.
constexpr uint64_t DIGEST_TIME_LIMIT_NS = 10000 * NS_PER_MS;
// What a shell would read as more than one plain word of a path.
const char* const SHELL_CHARACTERS = " \t\n'\"$`;|&<>()*?[\\";

// Like fgets with a buffer of 65 bytes: up to and including the first newline,
// at most 64 bytes; "" when nothing came before the end or the deadline.
std::string ReadFirstLine(int fd, uint64_t deadlineNs)
{
    std::string text;
    while (text.size() < DIGEST_TEXT_MAX) {
        uint64_t now = SteadyNowNs();
        if (now >= deadlineNs) {
            return "";
        }
        struct pollfd poller {fd, POLLIN, 0};
        int waitMs = static_cast<int>((deadlineNs - now + NS_PER_MS - 1) / NS_PER_MS);
        int ready = poll(&poller, 1, waitMs);
        if (ready <= 0) {
            if (ready == 0 || errno == EINTR) {
                continue;
            }
            break;
        }
        char chunk[DIGEST_TEXT_MAX];
        ssize_t length = read(fd, chunk, DIGEST_TEXT_MAX - text.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;
        }
        text.append(chunk, static_cast<size_t>(length));
        size_t newline = text.find('\n');
        if (newline != std::string::npos) {
            text.erase(newline + 1);
            break;
        }
    }
    return text;
}

} // namespace

IntegrityProtect& IntegrityProtect::Instance()
{
    static IntegrityProtect protect;
    return protect;
}

// A line too long for the buffer is skipped like a malformed one.
void IntegrityProtect::LoadHashConfig()
{
    hashes_.clear();
    const std::string path = SysPath(HASH_CFG_FILE);
    if (access(path.c_str(), R_OK) != 0) {
        SK_LOG(LOG_WARNING, "STAVIK: IntegrityProtect hash config file=%s is not exist", path.c_str());
        return;
    }
    std::ifstream list(path);
    if (!list.is_open()) {
        SK_LOG(LOG_ERR, "STAVIK: IntegrityProtect hash config file=%s open failed", path.c_str());
        return;
    }
    std::string line;
    while (std::getline(list, line)) {
        if (line.empty()) {
            continue;
        }
        size_t equals = line.find('=');
        if (line.size() >= HASH_LINE_BUF || equals == std::string::npos || equals == 0 ||
            equals + 1 == line.size()) {
            SK_LOG(LOG_WARNING, "STAVIK: hash config string=%s format is false", path.c_str());
            continue;
        }
        hashes_[line.substr(0, equals)] = line.substr(equals + 1);
    }
}

bool IntegrityProtect::CheckApp(const std::string& appPath)
{
    if (appPath.empty()) {
        Syslog(LOG_ERR, "STAVIK: IntegrityProtect appName is empty");
        return false;
    }
    size_t nameEnd = appPath.find_last_not_of('/');
    size_t slash = nameEnd == std::string::npos || nameEnd == 0 ? std::string::npos : appPath.rfind('/', nameEnd);
    if (slash == std::string::npos) {
        Syslog(LOG_ERR, "STAVIK: IntegrityProtect appPath=%s is illegal", appPath.c_str());
        return false;
    }
    return CheckHash(appPath.substr(slash + 1, nameEnd - slash), appPath);
}

// The path goes to the shell unquoted, so one that the shell would read as
// anything but itself never gets that far.
bool IntegrityProtect::CheckHash(const std::string& name, const std::string& appPath)
{
    auto entry = hashes_.find(name);
    if (entry == hashes_.end()) {
        return true;
    }
    if (appPath.find_first_of(SHELL_CHARACTERS) != std::string::npos) {
        Syslog(LOG_ERR, "STAVIK: IntegrityProtect appPath=%s is illegal", appPath.c_str());
        return false;
    }
    const std::string command = "sha256sum " + appPath + "|cut -d' ' -f1";
    const uint64_t deadline = SteadyNowNs() + DIGEST_TIME_LIMIT_NS;
    HelperChildren& helpers = HelperChildren::Instance();
    for (int attempt = 0; attempt < DIGEST_TRIES; ++attempt) {
        int output = -1;
        pid_t pid = helpers.StartShell(command, output);
        if (pid < 0) {
            Syslog(LOG_ERR, "STAVIK: IntegrityProtect popen for appPath=%s failed, errno=%d", appPath.c_str(), errno);
            SleepNs(SPAWN_RETRY_PAUSE_NS);
            continue;
        }
        std::string digest = ReadFirstLine(output, deadline);
        close(output);
        helpers.Finish(pid, deadline);
        if (!digest.empty()) {
            return digest == entry->second;
        }
    }
    Syslog(LOG_ERR, "STAVIK: IntegrityProtect sha256sum failed for app=%s", appPath.c_str());
    return false;
}

} // namespace Stavik
