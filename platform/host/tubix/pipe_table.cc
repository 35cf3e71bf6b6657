#include "tubix/pipe_table.h"

#include <limits>

namespace Tubix {

template <typename Map>
int32_t PipeTable::NextFree(int32_t* last, const Map& map)
{
    do {
        *last = (*last == std::numeric_limits<int32_t>::max()) ? 1 : *last + 1;
    } while (map.count(*last) != 0);
    return *last;
}

std::shared_ptr<Pipe> PipeTable::AddPipe(const PipeFactory& make)
{
    std::lock_guard<std::mutex> guard(mutex_);
    int32_t fd = NextFree(&lastPipe_, pipes_);
    std::shared_ptr<Pipe> pipe = make(fd);
    pipes_[fd] = pipe;
    return pipe;
}

std::shared_ptr<Pipe> PipeTable::FindPipe(int32_t fd) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = pipes_.find(fd);
    return found == pipes_.end() ? nullptr : found->second;
}

void PipeTable::ErasePipe(int32_t fd)
{
    std::shared_ptr<Pipe> last;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto found = pipes_.find(fd);
        if (found == pipes_.end()) {
            return;
        }
        last = std::move(found->second);
        pipes_.erase(found);
    }
    // A pipe may end here; its destructor runs outside the table's lock.
}

std::vector<int32_t> PipeTable::PipesOf(const Listener* listener) const
{
    std::vector<int32_t> fds;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& entry : pipes_) {
        if (entry.second->Owner() == listener) {
            fds.push_back(entry.first);
        }
    }
    return fds;
}

bool PipeTable::AnyQueuedSends() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& entry : pipes_) {
        if (entry.second->HasQueuedSends()) {
            return true;
        }
    }
    return false;
}

std::shared_ptr<Listener> PipeTable::AddListener(const ListenerFactory& make)
{
    std::lock_guard<std::mutex> guard(mutex_);
    int32_t id = NextFree(&lastListener_, listeners_);
    std::shared_ptr<Listener> listener = make(id);
    listeners_[id] = listener;
    return listener;
}

std::shared_ptr<Listener> PipeTable::FindListener(int32_t id) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = listeners_.find(id);
    return found == listeners_.end() ? nullptr : found->second;
}

std::shared_ptr<Listener> PipeTable::TakeListener(int32_t id)
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = listeners_.find(id);
    if (found == listeners_.end()) {
        return nullptr;
    }
    std::shared_ptr<Listener> listener = std::move(found->second);
    listeners_.erase(found);
    return listener;
}

} // namespace Tubix
