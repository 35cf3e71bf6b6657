#ifndef STAVIK_PLATFORM_HOST_TUBIX_ENDPOINT_MEMORY_H
#define STAVIK_PLATFORM_HOST_TUBIX_ENDPOINT_MEMORY_H

#include <sys/stat.h>

#include <map>
#include <mutex>
#include <string>

namespace Tubix {

// One socket file as it was: a file replaced by a new one differs.
struct EndpointFile {
    dev_t device = 0;
    ino_t inode = 0;
    struct timespec changed = {0, 0};

    bool operator==(const EndpointFile& other) const;
    bool operator!=(const EndpointFile& other) const { return !(*this == other); }
};

// How the socket file of each service looked when an open last saw it. An open
// that finds the service refusing waits only while the file is one it has
// seen before, the stale endpoint of an incarnation that the next one is about
// to replace; a file made since then and already refusing belongs to an
// incarnation that has come and gone, and nothing is left to wait for.
class EndpointMemory {
public:
    static EndpointMemory& Instance();

    // The socket file at path, false when there is none.
    static bool Look(const std::string& path, EndpointFile* file);
    // False when path was never seen.
    bool Recall(const std::string& path, EndpointFile* file);
    void Remember(const std::string& path, const EndpointFile& file);

private:
    std::mutex mutex_;
    std::map<std::string, EndpointFile> files_;
};

} // namespace Tubix

#endif
