#ifndef STAVIK_PLATFORM_HOST_TUBIX_THREAD_GROUP_H
#define STAVIK_PLATFORM_HOST_TUBIX_THREAD_GROUP_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>

namespace Tubix {

// The library's threads are detached, so that none can hold up the end of the
// process; the group counts them so that the exit hook can wait, bounded, for
// them to leave.
class ThreadGroup {
public:
    bool Spawn(const char* role, std::function<void()> body);
    bool WaitAllExited(std::chrono::milliseconds limit);

private:
    void Exited();

    std::mutex mutex_;
    std::condition_variable exited_;
    size_t live_ = 0;
};

} // namespace Tubix

#endif
