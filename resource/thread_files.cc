#include <dirent.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/constants.h"
#include "core/log.h"
#include "core/standardization_path.h"
#include "resource/core_affinity_mgr.h"

// The threads of a process as /proc shows them; never through the sandbox
// root, they have to be the real ones.

namespace Stavik {
namespace {

const std::string TASK_DIR = "/task/";
const std::string STATUS_FILE = "/status";
// The first line of a status file is "Name:\t" and the name.
constexpr size_t NAME_LINE_SIZE = 64;
constexpr size_t NAME_OFFSET = 6;

} // namespace

bool CoreAffinityMgr::GetTids(uint32_t pid, std::set<uint32_t>& tids)
{
    const std::string path = PROC_PATH + std::to_string(pid) + TASK_DIR;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        Syslog(LOG_ERR, "opendir %s fail, errno: %d", path.c_str(), errno);
        return false;
    }
    while (const struct dirent* entry = readdir(dir)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) {
            tids.insert(static_cast<uint32_t>(strtoul(entry->d_name, nullptr, 10)));
        }
    }
    closedir(dir);
    return true;
}

bool CoreAffinityMgr::GetThreadName(uint32_t pid, uint32_t tid, char* name, size_t size)
{
    if (size == 0) {
        return false;
    }
    std::string path;
    if (!StandardizationPath(PROC_PATH + std::to_string(pid) + TASK_DIR + std::to_string(tid) + STATUS_FILE, path)) {
        return false;
    }
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        Syslog(LOG_ERR, "fopen %s fail, errno: %d", path.c_str(), errno);
        return false;
    }
    char line[NAME_LINE_SIZE] = {};
    bool hasLine = fgets(line, sizeof(line), file) != nullptr;
    fclose(file);
    if (!hasLine) {
        return false;
    }
    size_t length = 0;
    for (size_t at = NAME_OFFSET; at < NAME_LINE_SIZE && line[at] != '\n' && line[at] != '\0' && length < size;
         ++at) {
        name[length++] = line[at];
    }
    if (length < size) {
        name[length] = '\0';
    }
    name[size - 1] = '\0';
    return true;
}

bool CoreAffinityMgr::CheckTidIsValid(uint32_t pid, uint32_t tid, const ThreadCoreInfo& info)
{
    char name[THREAD_NAME_SIZE] = {};
    if (!GetThreadName(pid, tid, name, sizeof(name))) {
        return false;
    }
    return info.pid == pid && strncmp(name, info.threadName, THREAD_NAME_SIZE) == 0;
}

} // namespace Stavik
