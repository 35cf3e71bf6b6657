#ifndef STAVIK_CHANNEL_TUBIX_WRAPPERS_H
#define STAVIK_CHANNEL_TUBIX_WRAPPERS_H

#include <cstdint>

#include "tubix.h"

namespace Stavik {

// The IPC calls with the daemon's retry on contention: a busy pipe (-11) is
// tried 401 times 5 ms apart, a busy close (-16) 10 times 100 ms apart. Each
// returns the last result, the close nothing.
int32_t StavikTubixSendRequest(int32_t fd, TubixRequest req);
int32_t StavikTubixSendResponse(int32_t fd, TubixResponse resp);
int32_t StavikTubixRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp);
int32_t StavikTubixTimedRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp, uint32_t timeoutMs);
void StavikTubixClosePipe(int32_t fd);

constexpr int32_t TUBIX_TRY_AGAIN = -11;
constexpr int32_t TUBIX_BUSY = -16;

} // namespace Stavik

#endif
