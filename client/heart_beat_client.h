#ifndef STAVIK_CLIENT_HEART_BEAT_CLIENT_H
#define STAVIK_CLIENT_HEART_BEAT_CLIENT_H

#include <cstdint>
#include <string>

namespace Stavik {
namespace Client {

// Interval and count a service beats with when its environment names none.
constexpr uint32_t HEART_BEAT_DEFAULT_INTERVAL_MS = 1000;
constexpr uint32_t HEART_BEAT_DEFAULT_COUNT = 3;

// Starts beating on a thread of its own when the environment has GRP_HB=1:
// one beat every GRP_HB_INTERVAL ms under the name $PROC_NAME, so that the
// daemon's checker counts the service lost after GRP_HB_COUNT silent
// intervals. False when the environment asks for no beats. Call it once.
//
//     int main() { Stavik::Client::StartHeartBeat(); ... }
bool StartHeartBeat();
// A paused service keeps silent, as if it hung; beats resume at once after.
void PauseHeartBeat(bool paused);

// One beat of any name, for tools and benchmarks.
bool SendHeartBeat(const std::string& name, uint32_t intervalMs, uint32_t count);

} // namespace Client
} // namespace Stavik

#endif
