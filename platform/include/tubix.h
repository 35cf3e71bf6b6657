#ifndef STAVIK_PLATFORM_TUBIX_H
#define STAVIK_PLATFORM_TUBIX_H

#include <cstddef>
#include <cstdint>
#include <functional>

// The platform's inter-process messaging library. A pipe is a message
// connection to a named service; every message keeps its boundaries.
// Callbacks run on a few threads of the library shared by all pipes: those of
// one pipe one at a time and in arrival order, those of different pipes
// possibly at the same time. Results are 0 or a descriptor on success and a
// negative errno value on failure: -11 try again, -16 busy, -9 no such pipe,
// -13 the service is served by a process of another group, -32 the peer has
// gone, -90 a message above 65536 bytes, -105 the pipe's send queue is full,
// -110 timed out. A pipe whose peer has gone keeps no socket open, and stays
// known until TubixClosePipe.

// One message, as handed to a callback or passed to a send.
struct TubixRequest {
    uint32_t id;      // chosen by the library for a request; a callback sees the sender's id
    const void* data; // the message bytes, owned by the caller (by the library during a callback)
    uint32_t size;    // number of bytes at data
};
static_assert(sizeof(TubixRequest) == 24, "TubixRequest layout is binding");
static_assert(offsetof(TubixRequest, id) == 0, "TubixRequest layout is binding");
static_assert(offsetof(TubixRequest, data) == 8, "TubixRequest layout is binding");
static_assert(offsetof(TubixRequest, size) == 16, "TubixRequest layout is binding");

// The answer to one request. Sending: id is the answered request's id. Receiving
// through an RPC: data is the caller's buffer of size bytes; the library writes
// the answer there and sets id and size.
struct TubixResponse {
    uint32_t id;
    void* data;
    uint32_t size;
};
static_assert(sizeof(TubixResponse) == 24, "TubixResponse layout is binding");
static_assert(offsetof(TubixResponse, id) == 0, "TubixResponse layout is binding");
static_assert(offsetof(TubixResponse, data) == 8, "TubixResponse layout is binding");
static_assert(offsetof(TubixResponse, size) == 16, "TubixResponse layout is binding");

// Receives every request that arrives on a pipe opened with TubixOpen; a null
// request means that the peer has gone (delivered once, after all its messages).
using TubixRequestHandler = std::function<void(int32_t fd, const TubixRequest* req)>;

struct TubixOpenParam {
    const char* procName;        // name of the target service; read during the call only
    TubixRequestHandler handler; // kept by the library for the life of the pipe
    int32_t priority;            // callback thread priority, -1 for the default; the host library shares its threads
    int32_t msgMode;             // 1: message pipe, boundaries kept (the only mode)
    uint32_t gid;                // group of the target service; a server of another group, not root, is refused
    int32_t retryOnMissing;      // non-zero: keep trying while the service is missing or refuses
    uint64_t flags;              // reserved, 0
    int32_t timeoutMs;           // how long to keep trying; -1 for $TUBIX_OPEN_TIMEOUT_MS (default 1000)
    uint8_t reserved0;           // 0
    int32_t reserved1;           // 0
    uint64_t reserved2;          // 0
};
// The record holds a callable, so it isn't standard-layout; the offsets are
// still fixed on the one compiler family that builds the daemon.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(sizeof(TubixRequestHandler) == 32, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, procName) == 0, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, handler) == 8, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, priority) == 40, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, msgMode) == 44, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, gid) == 48, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, retryOnMissing) == 52, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, flags) == 56, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, timeoutMs) == 64, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, reserved0) == 68, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, reserved1) == 72, "TubixOpenParam layout is binding");
static_assert(offsetof(TubixOpenParam, reserved2) == 80, "TubixOpenParam layout is binding");
static_assert(sizeof(TubixOpenParam) == 88, "TubixOpenParam layout is binding");
#pragma GCC diagnostic pop

// A client announced itself: its descriptor and its name (NUL-terminated, nameLen bytes).
typedef void (*TubixConnectCallback)(int32_t fd, const char* clientName, uint32_t nameLen);
// A request from a client; null when that client has gone.
typedef void (*TubixServerRequestCallback)(int32_t fd, const TubixRequest* req);

struct TubixServerParam {
    TubixConnectCallback connectCallback;       // may be null
    TubixServerRequestCallback requestCallback; // required
    uint32_t maxConnections;                    // clients at once, further ones are refused; 0: no limit
    uint32_t threadNum;                         // callback threads wanted; the host library shares its threads
    uint64_t flags;                             // reserved, 0
};
static_assert(offsetof(TubixServerParam, connectCallback) == 0, "TubixServerParam layout is binding");
static_assert(offsetof(TubixServerParam, requestCallback) == 8, "TubixServerParam layout is binding");
static_assert(offsetof(TubixServerParam, maxConnections) == 16, "TubixServerParam layout is binding");
static_assert(offsetof(TubixServerParam, threadNum) == 20, "TubixServerParam layout is binding");
static_assert(offsetof(TubixServerParam, flags) == 24, "TubixServerParam layout is binding");
static_assert(sizeof(TubixServerParam) == 32, "TubixServerParam layout is binding");

// Connects to the service procName; a descriptor above 0, -11 when the service
// did not come up in time, -13 when a process of another group serves the name.
int32_t TubixOpen(const TubixOpenParam* param);
// Serves as $PROC_NAME, on the listening socket $TUBIX_LISTEN_FD made for this
// process before exec when there is one; 0 or a negative code.
int32_t TubixCreateServer(const TubixServerParam* param);
// Sends without waiting: what the peer can't take yet waits in the pipe's own
// queue (at most 4096 messages or 4 MiB) and leaves in order; -105 when that
// queue is full.
int32_t TubixSendRequest(int32_t fd, TubixRequest req);
int32_t TubixSendResponse(int32_t fd, TubixResponse resp);
// Sends req (its id is filled in) and waits for the response with that id,
// which goes to this caller and never to a callback; so a callback may call
// too. Without a time limit the wait ends with the answer, the peer's end
// (-32) or the pipe's close (-125). An answer larger than resp->size gives -90
// with its length in resp->size.
int32_t TubixRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp);
// The same, giving up with -110 after timeoutMs; a later answer is dropped.
int32_t TubixTimedRPCSync(int32_t fd, TubixRequest* req, TubixResponse* resp, uint32_t timeoutMs);
// Closes a pipe; once it answers 0 no callback of the pipe starts and its
// socket is closed. A callback that runs on another thread meanwhile finishes,
// and the pipe's memory goes when it returns. Called from inside one of the
// pipe's own callbacks it answers -16 and closes nothing.
int32_t TubixClosePipe(int32_t fd);

#endif
