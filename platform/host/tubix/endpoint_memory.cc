#include "tubix/endpoint_memory.h"

namespace Tubix {

bool EndpointFile::operator==(const EndpointFile& other) const
{
    return device == other.device && inode == other.inode && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
}

EndpointMemory& EndpointMemory::Instance()
{
    static EndpointMemory* memory = new EndpointMemory();
    return *memory;
}

bool EndpointMemory::Look(const std::string& path, EndpointFile* file)
{
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
        return false;
    }
    file->device = info.st_dev;
    file->inode = info.st_ino;
    file->changed = info.st_ctim;
    return true;
}

bool EndpointMemory::Recall(const std::string& path, EndpointFile* file)
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = files_.find(path);
    if (found == files_.end()) {
        return false;
    }
    *file = found->second;
    return true;
}

void EndpointMemory::Remember(const std::string& path, const EndpointFile& file)
{
    std::lock_guard<std::mutex> guard(mutex_);
    files_[path] = file;
}

} // namespace Tubix
