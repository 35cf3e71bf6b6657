#ifndef STAVIK_PLATFORM_HOST_TUBIX_EPOLL_TAG_H
#define STAVIK_PLATFORM_HOST_TUBIX_EPOLL_TAG_H

#include <cstdint>

namespace Tubix {

// The reading thread finds the object behind an epoll event by kind and number,
// never by pointer, so that an event of an object closed meanwhile is harmless.
enum class EpollKind : uint32_t {
    WAKE = 0,
    LISTENER = 1,
    PIPE = 2,
};

inline uint64_t MakeEpollTag(EpollKind kind, int32_t id)
{
    return (static_cast<uint64_t>(kind) << 32) | static_cast<uint32_t>(id);
}

inline EpollKind EpollTagKind(uint64_t tag)
{
    return static_cast<EpollKind>(tag >> 32);
}

inline int32_t EpollTagId(uint64_t tag)
{
    return static_cast<int32_t>(static_cast<uint32_t>(tag));
}

} // namespace Tubix

#endif
