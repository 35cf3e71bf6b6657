#include "tubix/thread_group.h"

#include <system_error>
#include <thread>

#include "core/log.h"

namespace Tubix {

bool ThreadGroup::Spawn(const char* role, std::function<void()> body)
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ++live_;
    }
    try {
        std::thread([this, body] {
            body();
            Exited();
        }).detach();
    } catch (const std::system_error& error) {
        Stavik::Syslog(LOG_ERR, "Tubix: cannot start the %s thread: %s", role, error.what());
        Exited();
        return false;
    }
    return true;
}

bool ThreadGroup::WaitAllExited(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return exited_.wait_for(lock, limit, [this] { return live_ == 0; });
}

void ThreadGroup::Exited()
{
    std::lock_guard<std::mutex> guard(mutex_);
    --live_;
    exited_.notify_all();
}

} // namespace Tubix
