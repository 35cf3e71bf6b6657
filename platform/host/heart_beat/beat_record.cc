#include "heart_beat/beat_record.h"

#include <cstring>

#include "tubix/runtime_dir.h"

namespace HeartBeat {
namespace {

void PutU32(std::string& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

uint32_t GetU32(const char* data)
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(data[i]);
    }
    return value;
}

} // namespace

std::string EncodeBeat(const Beat& beat)
{
    std::string out;
    PutU32(out, BEAT_MAGIC);
    PutU32(out, static_cast<uint32_t>(beat.pid));
    PutU32(out, beat.intervalMs);
    PutU32(out, beat.count);
    return out + beat.name;
}

bool DecodeBeat(const char* data, size_t size, Beat& beat, std::string& why)
{
    if (size <= BEAT_HEADER_SIZE || size > BEAT_HEADER_SIZE + BEAT_NAME_MAX) {
        why = "bad length";
        return false;
    }
    if (GetU32(data) != BEAT_MAGIC) {
        why = "bad magic";
        return false;
    }
    beat.pid = static_cast<int32_t>(GetU32(data + 4));
    beat.intervalMs = GetU32(data + 8);
    beat.count = GetU32(data + 12);
    beat.name.assign(data + BEAT_HEADER_SIZE, size - BEAT_HEADER_SIZE);
    if (beat.pid <= 0 || beat.intervalMs == 0 || beat.count == 0) {
        why = "zero pid, interval or count";
        return false;
    }
    if (beat.name.find('\0') != std::string::npos) {
        why = "NUL in the name";
        return false;
    }
    return true;
}

std::string CheckerSocketPath()
{
    return Tubix::RuntimeDir() + "/.heart_beat";
}

} // namespace HeartBeat
