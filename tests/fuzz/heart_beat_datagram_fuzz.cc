// One datagram as the heart-beat checker receives it on its socket.
#include "heart_beat/beat_record.h"
#include "fuzz_support.h"

using namespace HeartBeat;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Beat beat;
    std::string why;
    const char* data = reinterpret_cast<const char*>(bytes);
    if (!DecodeBeat(data, length, beat, why)) {
        Stavik::Fuzz::Require(!why.empty());
        return 0;
    }
    // An accepted beat is exactly what a sender would encode for it.
    Stavik::Fuzz::Require(beat.pid > 0 && beat.intervalMs > 0 && beat.count > 0);
    Stavik::Fuzz::Require(!beat.name.empty() && beat.name.size() <= BEAT_NAME_MAX);
    Stavik::Fuzz::Require(EncodeBeat(beat) == std::string(data, length));
    return 0;
}
