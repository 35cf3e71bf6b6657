#ifndef STAVIK_PLATFORM_HOST_TUBIX_FRAME_H
#define STAVIK_PLATFORM_HOST_TUBIX_FRAME_H

#include <cstddef>
#include <cstdint>

namespace Tubix {

// Every message is one seqpacket packet: this 16-byte little-endian header,
// then the payload, so that peers in any language can speak it.
constexpr uint32_t FRAME_MAGIC = 0x31584254; // "TBX1"
constexpr size_t FRAME_HEADER_SIZE = 16;
constexpr uint32_t FRAME_MAX_PAYLOAD = 65536;

enum class FrameKind : uint16_t {
    HELLO = 1,
    REQUEST = 2,
    RESPONSE = 3,
};

struct FrameHeader {
    uint32_t magic;
    uint16_t kind;
    uint16_t flags;
    uint32_t id;
    uint32_t length;
};

void EncodeFrameHeader(FrameKind kind, uint32_t id, uint32_t length, uint8_t* out);

// Checks one received packet of packetSize bytes (of which the first ones are
// at packet); false, with one log line, when it must be dropped.
bool DecodeFrame(int32_t fd, const uint8_t* packet, size_t packetSize, FrameHeader* header);

void PutLe32(uint8_t* out, uint32_t value);
uint32_t GetLe32(const uint8_t* in);

} // namespace Tubix

#endif
