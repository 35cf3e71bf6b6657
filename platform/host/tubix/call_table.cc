#include "tubix/call_table.h"

#include <errno.h>

#include <chrono>

namespace Tubix {

bool CallTable::Expect(uint32_t id, int32_t* failure)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (failure_ != 0) {
        *failure = failure_;
        return false;
    }
    waiters_[id] = Waiter();
    return true;
}

int32_t CallTable::Await(uint32_t id, int64_t timeoutMs, std::vector<uint8_t>* reply)
{
    std::unique_lock<std::mutex> lock(mutex_);
    Waiter& waiter = waiters_[id];
    auto done = [&waiter] { return waiter.done; };
    if (timeoutMs < 0) {
        answered_.wait(lock, done);
    } else {
        answered_.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    }
    int32_t result = waiter.done ? waiter.result : -ETIMEDOUT;
    if (result == 0) {
        reply->swap(waiter.reply);
    }
    waiters_.erase(id);
    return result;
}

void CallTable::Forget(uint32_t id)
{
    std::lock_guard<std::mutex> guard(mutex_);
    waiters_.erase(id);
}

bool CallTable::Answer(uint32_t id, const uint8_t* data, size_t size)
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = waiters_.find(id);
    if (found == waiters_.end() || found->second.done) {
        return false;
    }
    found->second.reply.assign(data, data + size);
    found->second.done = true;
    answered_.notify_all();
    return true;
}

void CallTable::FailAll(int32_t code)
{
    std::lock_guard<std::mutex> guard(mutex_);
    failure_ = code;
    for (auto& entry : waiters_) {
        if (!entry.second.done) {
            entry.second.done = true;
            entry.second.result = code;
        }
    }
    answered_.notify_all();
}

} // namespace Tubix
