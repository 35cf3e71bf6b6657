#ifndef STAVIK_PLATFORM_HOST_TUBIX_PIPE_TABLE_H
#define STAVIK_PLATFORM_HOST_TUBIX_PIPE_TABLE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "tubix/listener.h"
#include "tubix/pipe.h"

namespace Tubix {

// The open pipes by descriptor and the listeners by number. Numbers count up
// from 1 and are not reused while the count lasts.
class PipeTable {
public:
    using PipeFactory = std::function<std::shared_ptr<Pipe>(int32_t fd)>;
    using ListenerFactory = std::function<std::shared_ptr<Listener>(int32_t id)>;

    std::shared_ptr<Pipe> AddPipe(const PipeFactory& make);
    std::shared_ptr<Pipe> FindPipe(int32_t fd) const;
    void ErasePipe(int32_t fd);
    std::vector<int32_t> PipesOf(const Listener* listener) const;
    bool AnyQueuedSends() const;

    std::shared_ptr<Listener> AddListener(const ListenerFactory& make);
    std::shared_ptr<Listener> FindListener(int32_t id) const;
    std::shared_ptr<Listener> TakeListener(int32_t id);

private:
    template <typename Map>
    static int32_t NextFree(int32_t* last, const Map& map);

    mutable std::mutex mutex_;
    int32_t lastPipe_ = 0;
    int32_t lastListener_ = 0;
    std::unordered_map<int32_t, std::shared_ptr<Pipe>> pipes_;
    std::unordered_map<int32_t, std::shared_ptr<Listener>> listeners_;
};

} // namespace Tubix

#endif
