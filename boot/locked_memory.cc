#include "boot/locked_memory.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/sk_log.h"
#include "core/sys_root.h"

namespace Stavik {
namespace {

const std::string LOCKED_MEMORY_KEY = "MAX_LOCKED_MEMORY_LIMIT=";
const char* const UNLIMITED_WORD = "unlimited";
constexpr size_t ENV_LINE_MAX = 1024;
constexpr uint64_t DEFAULT_LOCKED_MEMORY_LIMIT = UINT64_MAX;

uint64_t LeadingNumber(const char* text)
{
    if (text[0] < '0' || text[0] > '9') {
        return 0;
    }
    return strtoull(text, nullptr, 10);
}

} // namespace

uint64_t GetLockedMemoryLimitFromCfg(const std::string& path)
{
    std::string resolved = SysPath(path);
    FILE* file = fopen(resolved.c_str(), "re");
    if (file == nullptr) {
        SK_LOG(LOG_WARNING, "GetLockedMemoryLimitFromCfg fopen %s fail,errno=%d, return default", resolved.c_str(),
               errno);
        return DEFAULT_LOCKED_MEMORY_LIMIT;
    }
    char line[ENV_LINE_MAX] = {0};
    bool found = false;
    while (fgets(line, sizeof(line), file) != nullptr) {
        if (strstr(line, LOCKED_MEMORY_KEY.c_str()) != nullptr) {
            found = true;
            break;
        }
    }
    fclose(file);
    if (!found) {
        SK_LOG(LOG_INFO, "STAVIK: GetLockedMemoryLimitFromCfg not find %s limit cfg, return default",
               resolved.c_str());
        return DEFAULT_LOCKED_MEMORY_LIMIT;
    }
    // Counted from the start of the line, not from the key.
    const char* value = line + LOCKED_MEMORY_KEY.size();
    if (strstr(value, UNLIMITED_WORD) != nullptr) {
        SK_LOG(LOG_INFO, "STAVIK: GetLockedMemoryLimitFromCfg limit is unlimited");
        return DEFAULT_LOCKED_MEMORY_LIMIT;
    }
    SK_LOG(LOG_INFO, "STAVIK: GetLockedMemoryLimitFromCfg limit value=%s", value);
    return LeadingNumber(value);
}

void SetLockedMemoryLimit(const std::string& path)
{
    uint64_t limit = GetLockedMemoryLimitFromCfg(path);
    struct rlimit value {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
    if (setrlimit(RLIMIT_MEMLOCK, &value) != 0) {
        SK_LOG(LOG_ERR, "STAVIK: setrlimit failed : errno=%d, cfg=%s, value=%lu", errno, path.c_str(),
               static_cast<unsigned long>(limit));
        return;
    }
    SK_LOG(LOG_INFO, "STAVIK: SetLockedMemoryLimit success limit value=%lu ", static_cast<unsigned long>(limit));
}

} // namespace Stavik
