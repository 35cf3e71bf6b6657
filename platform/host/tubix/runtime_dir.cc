#include "tubix/runtime_dir.h"

#include <errno.h>
#include <sys/stat.h>

#include <cstdlib>

#include "core/log.h"

namespace Tubix {
namespace {

constexpr const char* DEFAULT_RUNTIME_DIR = "/run/tubix";
// With the endpoint made before exec, an open only ever waits for the gap
// between a fork and the child's registration.
constexpr int32_t DEFAULT_OPEN_TIMEOUT_MS = 1000;
constexpr size_t SEND_QUEUE_MAX_MESSAGES = 4096;
constexpr mode_t SHARED_DIR_MODE = 01777;

bool MakeDir(const std::string& dir)
{
    if (mkdir(dir.c_str(), SHARED_DIR_MODE) == 0) {
        // mkdir is subject to the umask; the mode is what other users rely on.
        if (chmod(dir.c_str(), SHARED_DIR_MODE) != 0) {
            Stavik::Syslog(LOG_WARNING, "Tubix: chmod %s failed, errno=%d", dir.c_str(), errno);
        }
        return true;
    }
    if (errno == EEXIST) {
        return true;
    }
    Stavik::Syslog(LOG_ERR, "Tubix: mkdir %s failed, errno=%d", dir.c_str(), errno);
    return false;
}

} // namespace

std::string RuntimeDir()
{
    const char* value = getenv("TUBIX_DIR");
    std::string dir = (value == nullptr || value[0] == '\0') ? DEFAULT_RUNTIME_DIR : value;
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return dir;
}

std::string OwnProcName()
{
    const char* value = getenv("PROC_NAME");
    return value == nullptr ? std::string() : std::string(value);
}

int32_t DefaultOpenTimeoutMs()
{
    const char* value = getenv("TUBIX_OPEN_TIMEOUT_MS");
    if (value == nullptr || value[0] == '\0') {
        return DEFAULT_OPEN_TIMEOUT_MS;
    }
    char* end = nullptr;
    long parsed = strtol(value, &end, 10);
    if (*end != '\0' || parsed < 0 || parsed > INT32_MAX) {
        Stavik::Syslog(LOG_WARNING, "Tubix: TUBIX_OPEN_TIMEOUT_MS=%s is not a number of ms, using %d", value,
                       DEFAULT_OPEN_TIMEOUT_MS);
        return DEFAULT_OPEN_TIMEOUT_MS;
    }
    return static_cast<int32_t>(parsed);
}

size_t SendQueueMaxMessages()
{
    const char* value = getenv("TUBIX_SEND_QUEUE_MAX");
    if (value == nullptr || value[0] == '\0') {
        return SEND_QUEUE_MAX_MESSAGES;
    }
    char* end = nullptr;
    unsigned long parsed = strtoul(value, &end, 10);
    if (*end != '\0' || parsed == 0 || parsed > SEND_QUEUE_MAX_MESSAGES) {
        return SEND_QUEUE_MAX_MESSAGES;
    }
    return parsed;
}

bool IsSafeServiceName(const std::string& name)
{
    bool safe = !name.empty() && name.find('\0') == std::string::npos;
    size_t start = 0;
    while (safe && start <= name.size()) {
        size_t end = name.find('/', start);
        if (end == std::string::npos) {
            end = name.size();
        }
        safe = name.compare(start, end - start, "..") != 0;
        start = end + 1;
    }
    if (!safe) {
        Stavik::Syslog(LOG_ERR, "Tubix: service name \"%s\" is not usable", name.c_str());
    }
    return safe;
}

bool MakeParentDirs(const std::string& path)
{
    size_t slash = path.find('/', 1);
    while (slash != std::string::npos) {
        if (!MakeDir(path.substr(0, slash))) {
            return false;
        }
        slash = path.find('/', slash + 1);
    }
    return true;
}

} // namespace Tubix
