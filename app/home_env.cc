#include "app/home_env.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/sk_log.h"
#include "core/sys_root.h"

namespace Stavik {
namespace App {
namespace {

constexpr size_t HOME_LINE_MAX = 1024;

// On a passwd line the home directory is what lies between the first '/' and
// the last ':' (the one in front of the shell).
std::string HomeOfLine(const std::string& line)
{
    size_t first = line.find('/');
    size_t last = line.rfind(':');
    if (first == std::string::npos || last == std::string::npos || last < first) {
        return std::string();
    }
    return line.substr(first, last - first);
}

} // namespace

std::string& DaemonHomeEnv()
{
    static std::string home;
    return home;
}

void InquireHomeEnvVariable(const std::string& path, const std::string& key)
{
    std::string resolved = SysPath(path);
    FILE* file = fopen(resolved.c_str(), "re");
    if (file == nullptr) {
        SK_LOG(LOG_ERR, "fopen %s fail, errno=%d", resolved.c_str(), errno);
        return;
    }
    char line[HOME_LINE_MAX] = {0};
    bool found = false;
    while (fgets(line, sizeof(line), file) != nullptr) {
        if (strstr(line, key.c_str()) != nullptr) {
            found = true;
            break;
        }
    }
    fclose(file);
    if (!found) {
        SK_LOG(LOG_INFO, "STAVIK: InquireHomeEnvVariable not find %s env", key.c_str());
        return;
    }
    DaemonHomeEnv() = HomeOfLine(line);
    SK_LOG(LOG_INFO, "STAVIK: InquireHomeEnvVariable finished home env=%s ", DaemonHomeEnv().c_str());
}

} // namespace App
} // namespace Stavik
