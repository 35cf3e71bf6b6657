#include "hal/group_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "hal.h"
#include "tubix/runtime_dir.h"

namespace Hal {
namespace {

const char MEM_SIZE_KEY[] = "max_mem_size=";
const char MAGIC_KEY[] = "cfg_magic=";
const char MEMBER_KEY[] = "member=";

const char* OwnStateDir()
{
    const char* value = getenv("HAL_STATE_DIR");
    return (value != nullptr && value[0] != '\0') ? value : nullptr;
}

std::string StateDir()
{
    const char* own = OwnStateDir();
    return own != nullptr ? own : Tubix::RuntimeDir() + "/hal";
}

// The runtime directory, when the groups live in it, is made as the IPC
// library makes it, so that services of every user can still meet there.
bool MakeGroupsDir(const std::string& groupsDir)
{
    if (OwnStateDir() == nullptr && !Tubix::MakeParentDirs(StateDir())) {
        return false;
    }
    for (size_t at = groupsDir.find('/', 1); at != std::string::npos; at = groupsDir.find('/', at + 1)) {
        if (mkdir(groupsDir.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return mkdir(groupsDir.c_str(), 0755) == 0 || errno == EEXIST;
}

bool ReadAll(int fd, std::string& text)
{
    text.clear();
    char buffer[4096];
    off_t offset = 0;
    while (true) {
        ssize_t got = pread(fd, buffer, sizeof(buffer), offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        text.append(buffer, static_cast<size_t>(got));
        offset += got;
    }
}

bool WriteAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return ftruncate(fd, static_cast<off_t>(text.size())) == 0;
}

bool LockFile(int fd, int operation)
{
    while (flock(fd, operation) != 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string TempPath(const std::string& dir)
{
    static std::atomic<uint32_t> counter{0};
    return dir + "/.new." + std::to_string(getpid()) + "." + std::to_string(counter++);
}

} // namespace

std::string GroupsDir()
{
    return StateDir() + "/groups";
}

bool IsValidGroupName(const char* name)
{
    if (name == nullptr || name[0] == '\0' || name[0] == '.') {
        return false;
    }
    size_t length = strnlen(name, HAL_GRP_NAME_SIZE);
    return length < HAL_GRP_NAME_SIZE && memchr(name, '/', length) == nullptr &&
           memchr(name, '\n', length) == nullptr;
}

std::string FormatGroup(const GroupState& group)
{
    std::string text = MEM_SIZE_KEY + std::to_string(group.maxMemSize) + "\n" + MAGIC_KEY +
                       std::to_string(group.cfgMagic) + "\n";
    for (const auto& member : group.members) {
        text += MEMBER_KEY + std::to_string(member.first) + " " + std::to_string(member.second) + "\n";
    }
    return text;
}

GroupState ParseGroup(const std::string& text)
{
    GroupState group;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(MEM_SIZE_KEY, 0) == 0) {
            group.maxMemSize = strtoull(line.c_str() + strlen(MEM_SIZE_KEY), nullptr, 10);
        } else if (line.rfind(MAGIC_KEY, 0) == 0) {
            group.cfgMagic = static_cast<uint32_t>(strtoul(line.c_str() + strlen(MAGIC_KEY), nullptr, 10));
        } else if (line.rfind(MEMBER_KEY, 0) == 0) {
            char* end = nullptr;
            long pid = strtol(line.c_str() + strlen(MEMBER_KEY), &end, 10);
            group.members[static_cast<int32_t>(pid)] = static_cast<uint32_t>(strtoul(end, nullptr, 10));
        }
    }
    return group;
}

int32_t CreateGroupFile(const std::string& name, const GroupState& group)
{
    const std::string dir = GroupsDir();
    if (!MakeGroupsDir(dir)) {
        return -errno;
    }
    const std::string temp = TempPath(dir);
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -errno;
    }
    bool written = WriteAll(fd, FormatGroup(group));
    int err = errno;
    close(fd);
    int32_t result = 0;
    if (!written) {
        result = -err;
    } else if (link(temp.c_str(), (dir + "/" + name).c_str()) != 0) {
        // link never replaces a name, so of two creators exactly one wins.
        result = errno == EEXIST ? HAL_GRP_EXIST : -errno;
    }
    unlink(temp.c_str());
    return result;
}

int32_t SetGroupMember(const std::string& name, int32_t pid, uint32_t permission)
{
    int fd = open((GroupsDir() + "/" + name).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    std::string text;
    int32_t result = 0;
    if (!LockFile(fd, LOCK_EX) || !ReadAll(fd, text)) {
        result = -errno;
    } else {
        GroupState group = ParseGroup(text);
        group.members[pid] = permission;
        if (!WriteAll(fd, FormatGroup(group))) {
            result = -errno;
        }
    }
    close(fd);
    return result;
}

bool ReadGroupFile(const std::string& name, GroupState& group)
{
    int fd = open((GroupsDir() + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::string text;
    bool read = LockFile(fd, LOCK_SH) && ReadAll(fd, text);
    close(fd);
    if (read) {
        group = ParseGroup(text);
    }
    return read;
}

std::vector<std::string> GroupNames()
{
    std::vector<std::string> names;
    DIR* dir = opendir(GroupsDir().c_str());
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = readdir(dir)) {
        if (IsValidGroupName(entry->d_name)) {
            names.push_back(entry->d_name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace Hal
