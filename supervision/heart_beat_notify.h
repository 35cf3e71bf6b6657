#ifndef STAVIK_SUPERVISION_HEART_BEAT_NOTIFY_H
#define STAVIK_SUPERVISION_HEART_BEAT_NOTIFY_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/callback_gate.h"

namespace Stavik {

class StavikDaemon;

// The daemon that heart-beat notifications reach, and the gate they pass: a
// notification that comes after the gate has closed is dropped.
void BindHeartBeatNotify(StavikDaemon* daemon, std::shared_ptr<CallbackGate> gate);

// Called by the heart-beat library on its own thread: status 1 lost, 0 recovery.
// 1 when the status was handled, 0 otherwise.
uint32_t HeartBeatNotify(const char* appName, size_t nameLen, int32_t pid, uint32_t status);

} // namespace Stavik

#endif
