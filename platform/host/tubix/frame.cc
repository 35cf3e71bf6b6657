#include "tubix/frame.h"

#include "core/log.h"

namespace Tubix {
namespace {

void PutLe16(uint8_t* out, uint16_t value)
{
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
}

uint16_t GetLe16(const uint8_t* in)
{
    return static_cast<uint16_t>(in[0] | (in[1] << 8));
}

bool IsKnownKind(uint16_t kind)
{
    return kind >= static_cast<uint16_t>(FrameKind::HELLO) && kind <= static_cast<uint16_t>(FrameKind::RESPONSE);
}

} // namespace

void PutLe32(uint8_t* out, uint32_t value)
{
    PutLe16(out, static_cast<uint16_t>(value));
    PutLe16(out + 2, static_cast<uint16_t>(value >> 16));
}

uint32_t GetLe32(const uint8_t* in)
{
    return static_cast<uint32_t>(GetLe16(in)) | (static_cast<uint32_t>(GetLe16(in + 2)) << 16);
}

void EncodeFrameHeader(FrameKind kind, uint32_t id, uint32_t length, uint8_t* out)
{
    PutLe32(out, FRAME_MAGIC);
    PutLe16(out + 4, static_cast<uint16_t>(kind));
    PutLe16(out + 6, 0);
    PutLe32(out + 8, id);
    PutLe32(out + 12, length);
}

bool DecodeFrame(int32_t fd, const uint8_t* packet, size_t packetSize, FrameHeader* header)
{
    if (packetSize < FRAME_HEADER_SIZE) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: %zu bytes is shorter than a header", fd, packetSize);
        return false;
    }
    header->magic = GetLe32(packet);
    header->kind = GetLe16(packet + 4);
    header->flags = GetLe16(packet + 6);
    header->id = GetLe32(packet + 8);
    header->length = GetLe32(packet + 12);
    if (header->magic != FRAME_MAGIC) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: bad magic 0x%08x", fd, header->magic);
        return false;
    }
    if (!IsKnownKind(header->kind)) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: unknown kind %u", fd, header->kind);
        return false;
    }
    if (header->length > FRAME_MAX_PAYLOAD || header->length != packetSize - FRAME_HEADER_SIZE) {
        Stavik::Syslog(LOG_WARNING, "Tubix: drop packet fd=%d: length %u disagrees with a packet of %zu bytes", fd,
                       header->length, packetSize);
        return false;
    }
    return true;
}

} // namespace Tubix
