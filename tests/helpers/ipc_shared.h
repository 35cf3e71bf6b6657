#ifndef STAVIK_TESTS_HELPERS_IPC_SHARED_H
#define STAVIK_TESTS_HELPERS_IPC_SHARED_H

// Shared by ipc_peer and the tests that play a side of a pipe: opening a pipe
// as a client, sequence messages and a send that waits out a full socket.
#include <time.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tubix.h"

namespace IpcShared {

inline void SleepMs(long ms)
{
    struct timespec left = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// A pipe to service name in message mode; -1 as timeoutMs waits as long as the library does.
inline int32_t OpenPipe(const std::string& name, TubixRequestHandler handler, int32_t timeoutMs)
{
    TubixOpenParam param{};
    param.procName = name.c_str();
    param.handler = std::move(handler);
    param.priority = -1;
    param.msgMode = 1;
    param.retryOnMissing = 1;
    param.timeoutMs = timeoutMs;
    return TubixOpen(&param);
}

// 'S', the sequence number, then filler of a length that varies with it.
inline std::vector<uint8_t> SeqMessage(uint32_t seq)
{
    std::vector<uint8_t> message(5 + seq % 97, static_cast<uint8_t>(seq));
    message[0] = 'S';
    memcpy(&message[1], &seq, sizeof(seq));
    return message;
}

// At most 20 s of -EAGAIN, in steps of a millisecond.
inline int32_t SendPatiently(int32_t fd, const std::vector<uint8_t>& message)
{
    int32_t rc = -EAGAIN;
    for (int attempt = 0; attempt < 20000 && rc == -EAGAIN; ++attempt) {
        rc = TubixSendRequest(fd, TubixRequest{0, message.data(), static_cast<uint32_t>(message.size())});
        if (rc == -EAGAIN) {
            SleepMs(1);
        }
    }
    return rc;
}

} // namespace IpcShared

#endif
