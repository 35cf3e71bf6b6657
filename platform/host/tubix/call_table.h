#ifndef STAVIK_PLATFORM_HOST_TUBIX_CALL_TABLE_H
#define STAVIK_PLATFORM_HOST_TUBIX_CALL_TABLE_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace Tubix {

// The callers of one pipe that wait for a response, by request id. Responses
// are routed here by the reading thread and never reach a request callback,
// so a callback may itself wait for a response.
class CallTable {
public:
    // Registers the caller before its request goes out, so that no answer is
    // missed; false, with the pipe's failure code in *failure, once the pipe is gone.
    bool Expect(uint32_t id, int32_t* failure);
    // 0 with the reply, -110 after timeoutMs (negative: no limit), or the code
    // the pipe failed with. The id is forgotten either way.
    int32_t Await(uint32_t id, int64_t timeoutMs, std::vector<uint8_t>* reply);
    void Forget(uint32_t id);
    // False when nobody waits for id.
    bool Answer(uint32_t id, const uint8_t* data, size_t size);
    // Wakes every caller with code; later callers fail at once.
    void FailAll(int32_t code);

private:
    struct Waiter {
        bool done = false;
        int32_t result = 0;
        std::vector<uint8_t> reply;
    };

    std::mutex mutex_;
    std::condition_variable answered_;
    std::unordered_map<uint32_t, Waiter> waiters_;
    int32_t failure_ = 0;
};

} // namespace Tubix

#endif
