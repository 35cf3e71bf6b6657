#include "tubix/send_queue.h"

#include <cstring>

namespace Tubix {

bool SendQueue::Push(const uint8_t* header, size_t headerSize, const void* data, size_t size)
{
    size_t frameSize = headerSize + size;
    if (frames_.size() >= maxMessages_ || bytes_ + frameSize > maxBytes_) {
        return false;
    }
    std::vector<uint8_t> frame(frameSize);
    memcpy(frame.data(), header, headerSize);
    if (size > 0) {
        memcpy(frame.data() + headerSize, data, size);
    }
    frames_.push_back(std::move(frame));
    bytes_ += frameSize;
    return true;
}

void SendQueue::Pop()
{
    bytes_ -= frames_.front().size();
    frames_.pop_front();
}

size_t SendQueue::Clear()
{
    size_t dropped = frames_.size();
    frames_.clear();
    bytes_ = 0;
    return dropped;
}

} // namespace Tubix
