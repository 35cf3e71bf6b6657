#include "record_input.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>

namespace Stavik {
namespace Fuzz {
namespace {

// Reads up to `count` bytes of the input into `to`; what the input lacks stays zero.
class InputCursor {
public:
    InputCursor(const uint8_t* bytes, size_t length) : bytes_(bytes), length_(length) {}

    size_t Take(void* to, size_t count)
    {
        size_t taken = std::min(count, length_ - cursor_);
        if (taken > 0) {
            memcpy(to, bytes_ + cursor_, taken);
        }
        cursor_ += taken;
        return taken;
    }

private:
    const uint8_t* bytes_;
    size_t length_;
    size_t cursor_ = 0;
};

} // namespace

RecordInput ReadRecordInput(const uint8_t* bytes, size_t length)
{
    RecordInput input;
    memset(&input.msg, 0, sizeof(input.msg));
    InputCursor cursor(bytes, length);
    uint8_t flags = 0;
    cursor.Take(&flags, sizeof(flags));
    cursor.Take(&input.msg.type, sizeof(input.msg.type));
    bool sizeFromInput = (flags & SIZE_FROM_INPUT) != 0;
    if (sizeFromInput) {
        cursor.Take(&input.msg.size, sizeof(input.msg.size));
    }
    size_t dataBytes = cursor.Take(input.msg.data, sizeof(input.msg.data));
    if (!sizeFromInput) {
        input.msg.size = dataBytes;
    }
    input.owner = (flags & OWNER_ZULMGR) != 0 ? "zulmgr" : "owner";
    return input;
}

} // namespace Fuzz
} // namespace Stavik

// Bad bodies log on purpose; keep those lines out of the host's system log.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setlogmask(LOG_MASK(LOG_EMERG));
    return 0;
}
