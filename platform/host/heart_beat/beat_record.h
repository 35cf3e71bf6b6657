#ifndef STAVIK_PLATFORM_HOST_HEART_BEAT_BEAT_RECORD_H
#define STAVIK_PLATFORM_HOST_HEART_BEAT_BEAT_RECORD_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace HeartBeat {

// One beat is one datagram to the checker's socket: a 16-byte little-endian
// header, u32 magic "HBT1", i32 pid, u32 interval in ms, u32 count of missed
// intervals that make the sender lost, then the name (1 to 255 bytes, no NUL).
constexpr uint32_t BEAT_MAGIC = 0x31544248;
constexpr size_t BEAT_HEADER_SIZE = 16;
constexpr size_t BEAT_NAME_MAX = 255;

struct Beat {
    std::string name;
    int32_t pid = 0;
    uint32_t intervalMs = 0;
    uint32_t count = 0;
};

std::string EncodeBeat(const Beat& beat);
// False, with the reason, for anything but a well-formed beat.
bool DecodeBeat(const char* data, size_t size, Beat& beat, std::string& why);
// $TUBIX_DIR/.heart_beat: a name no service can have.
std::string CheckerSocketPath();

} // namespace HeartBeat

#endif
