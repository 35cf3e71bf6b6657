#ifndef STAVIK_PLATFORM_HOST_TUBIX_DISPATCHER_H
#define STAVIK_PLATFORM_HOST_TUBIX_DISPATCHER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "tubix/pipe.h"
#include "tubix/thread_group.h"

namespace Tubix {

// A few delivery threads shared by all pipes. A pipe with something to deliver
// waits in one ready queue; a thread takes it, runs one callback and puts it
// back at the end if more waits. So a pipe's callbacks run one at a time and
// in order, different pipes run side by side, and a busy pipe can't starve others.
class Dispatcher {
public:
    // Delivers one event of the pipe; true when more waits.
    using Runner = std::function<bool(const std::shared_ptr<Pipe>&)>;

    explicit Dispatcher(Runner runner) : runner_(std::move(runner)) {}
    // The number of threads that started.
    size_t Start(ThreadGroup& threads, size_t count);
    void Schedule(std::shared_ptr<Pipe> pipe);
    // Threads leave after their current callback.
    void Stop();

private:
    void Work();

    const Runner runner_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::shared_ptr<Pipe>> queue_;
    bool stopping_ = false;
};

} // namespace Tubix

#endif
