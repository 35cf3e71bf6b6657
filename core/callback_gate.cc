#include "core/callback_gate.h"

namespace Stavik {

void CallbackGate::Close()
{
    std::unique_lock<std::mutex> lock(mutex_);
    isOpen_ = false;
    idle_.wait(lock, [this] { return inside_ == 0; });
}

bool CallbackGate::Enter()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (isOpen_) {
        ++inside_;
    }
    return isOpen_;
}

void CallbackGate::Leave()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (--inside_ == 0) {
        idle_.notify_all();
    }
}

} // namespace Stavik
