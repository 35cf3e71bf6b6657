#include "tubix/dispatcher.h"

namespace Tubix {

size_t Dispatcher::Start(ThreadGroup& threads, size_t count)
{
    size_t started = 0;
    for (size_t i = 0; i < count; ++i) {
        if (threads.Spawn("delivery", [this] { Work(); })) {
            ++started;
        }
    }
    return started;
}

void Dispatcher::Schedule(std::shared_ptr<Pipe> pipe)
{
    std::lock_guard<std::mutex> guard(mutex_);
    queue_.push_back(std::move(pipe));
    ready_.notify_one();
}

void Dispatcher::Stop()
{
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    ready_.notify_all();
}

void Dispatcher::Work()
{
    while (true) {
        std::shared_ptr<Pipe> pipe;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                return;
            }
            pipe = std::move(queue_.front());
            queue_.pop_front();
        }
        if (runner_(pipe)) {
            Schedule(std::move(pipe));
        }
    }
}

} // namespace Tubix
