#ifndef STAVIK_PLATFORM_HOST_TUBIX_SEND_QUEUE_H
#define STAVIK_PLATFORM_HOST_TUBIX_SEND_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace Tubix {

// The frames of one pipe that did not fit its socket, whole and in send order.
// Bounded, so that a peer that never reads costs at most the bound.
class SendQueue {
public:
    SendQueue(size_t maxMessages, size_t maxBytes) : maxMessages_(maxMessages), maxBytes_(maxBytes) {}

    bool Empty() const { return frames_.empty(); }
    size_t Size() const { return frames_.size(); }
    // False, and nothing queued, when the frame would pass either bound.
    bool Push(const uint8_t* header, size_t headerSize, const void* data, size_t size);
    const std::vector<uint8_t>& Front() const { return frames_.front(); }
    void Pop();
    // Drops everything; the number of frames dropped.
    size_t Clear();

private:
    const size_t maxMessages_;
    const size_t maxBytes_;
    std::deque<std::vector<uint8_t>> frames_;
    size_t bytes_ = 0;
};

} // namespace Tubix

#endif
