#include "channel/tubix_wrappers.h"

#include <functional>

#include "core/sleep.h"

namespace Stavik {
namespace {

const uint32_t SEND_ATTEMPTS = 401;
const uint64_t SEND_RETRY_SLEEP_NS = 5 * NS_PER_MS;
const uint32_t CLOSE_ATTEMPTS = 10;
const uint64_t CLOSE_RETRY_SLEEP_NS = 100 * NS_PER_MS;

// The sleep follows every retried attempt, the last one included, so a send
// that stays busy takes about two seconds before its code is returned.
int32_t Retry(const std::function<int32_t()>& call, int32_t retryCode, uint32_t attempts, uint64_t sleepNs)
{
    int32_t result = retryCode;
    for (uint32_t attempt = 0; attempt < attempts; ++attempt) {
        result = call();
        if (result != retryCode) {
            return result;
        }
        SleepNs(sleepNs);
    }
    return result;
}

} // namespace

int32_t StavikTubixSendRequest(int32_t fd, TubixRequest req)
{
    return Retry([&] { return TubixSendRequest(fd, req); }, TUBIX_TRY_AGAIN, SEND_ATTEMPTS, SEND_RETRY_SLEEP_NS);
}

int32_t StavikTubixSendResponse(int32_t fd, TubixResponse resp)
{
    return Retry([&] { return TubixSendResponse(fd, resp); }, TUBIX_TRY_AGAIN, SEND_ATTEMPTS, SEND_RETRY_SLEEP_NS);
}

int32_t StavikTubixRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp)
{
    return Retry([&] { return TubixRPCSync(fd, req, resp); }, TUBIX_TRY_AGAIN, SEND_ATTEMPTS, SEND_RETRY_SLEEP_NS);
}

int32_t StavikTubixTimedRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp, uint32_t timeoutMs)
{
    return Retry([&] { return TubixTimedRPCSync(fd, req, resp, timeoutMs); }, TUBIX_TRY_AGAIN, SEND_ATTEMPTS,
                 SEND_RETRY_SLEEP_NS);
}

void StavikTubixClosePipe(int32_t fd)
{
    Retry([&] { return TubixClosePipe(fd); }, TUBIX_BUSY, CLOSE_ATTEMPTS, CLOSE_RETRY_SLEEP_NS);
}

} // namespace Stavik
