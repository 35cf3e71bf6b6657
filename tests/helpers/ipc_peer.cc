// The other process of the IPC tests. TUBIX_DIR and PROC_NAME come from the test.
//   ipc_peer server                  serves as $PROC_NAME until killed
// The server reads each request's payload:
//   'S' + u32 seq + filler   a sequence message, checked for order and content
//   "report"                 answered with "count=C bad=B held=H" of this connection
//   "hold"                   kept unanswered until a "flush"
//   "flush"                  answered "flushed", then every held request, newest first
//   "push N"                 sends N sequence messages back on the connection
//   "close"                  closes the connection from another thread
//   anything else            echoed
// The library releases a disconnected client. Exit status 0 means every check held.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc_shared.h"

namespace {

using IpcShared::SendPatiently;
using IpcShared::SeqMessage;

void Respond(int32_t fd, uint32_t id, const std::string& text)
{
    std::string copy = text;
    TubixSendResponse(fd, TubixResponse{id, &copy[0], static_cast<uint32_t>(copy.size())});
}

struct Held {
    uint32_t id;
    std::string payload;
};

struct ConnectionStats {
    uint32_t count = 0;
    uint32_t bad = 0;
};

struct ServerState {
    std::mutex mutex;
    std::map<int32_t, ConnectionStats> stats;
    std::vector<Held> held;
};

ServerState& State()
{
    static ServerState state;
    return state;
}

void CheckSequence(int32_t fd, const TubixRequest* req)
{
    const uint8_t* data = static_cast<const uint8_t*>(req->data);
    uint32_t seq = 0;
    memcpy(&seq, data + 1, sizeof(seq));
    std::lock_guard<std::mutex> guard(State().mutex);
    ConnectionStats& stats = State().stats[fd];
    std::vector<uint8_t> expected = SeqMessage(stats.count);
    if (seq != stats.count || req->size != expected.size() || memcmp(data, expected.data(), req->size) != 0) {
        ++stats.bad;
    }
    ++stats.count;
}

void Flush(int32_t fd, uint32_t id)
{
    std::vector<Held> held;
    {
        std::lock_guard<std::mutex> guard(State().mutex);
        held.swap(State().held);
    }
    Respond(fd, id, "flushed");
    for (auto it = held.rbegin(); it != held.rend(); ++it) {
        Respond(fd, it->id, it->payload);
    }
}

void Push(int32_t fd, uint32_t count)
{
    for (uint32_t seq = 0; seq < count; ++seq) {
        if (SendPatiently(fd, SeqMessage(seq)) != 0) {
            return;
        }
    }
}

std::string Report(int32_t fd)
{
    std::lock_guard<std::mutex> guard(State().mutex);
    const ConnectionStats& stats = State().stats[fd];
    return "count=" + std::to_string(stats.count) + " bad=" + std::to_string(stats.bad) +
           " held=" + std::to_string(State().held.size());
}

void ServeRequest(int32_t fd, const TubixRequest* req)
{
    if (req == nullptr) {
        return;
    }
    std::string text(static_cast<const char*>(req->data), req->size);
    if (req->size >= 5 && text[0] == 'S') {
        CheckSequence(fd, req);
    } else if (text == "report") {
        Respond(fd, req->id, Report(fd));
    } else if (text == "hold") {
        std::lock_guard<std::mutex> guard(State().mutex);
        State().held.push_back(Held{req->id, text});
    } else if (text == "flush") {
        Flush(fd, req->id);
    } else if (text.compare(0, 5, "push ") == 0) {
        Push(fd, static_cast<uint32_t>(strtoul(text.c_str() + 5, nullptr, 10)));
    } else if (text == "close") {
        // Its own callback may not close it.
        std::thread([fd] {
            if (TubixClosePipe(fd) != 0) {
                _exit(3);
            }
        }).detach();
    } else {
        TubixSendResponse(fd, TubixResponse{req->id, const_cast<void*>(req->data), req->size});
    }
}

int RunServer()
{
    TubixServerParam param{nullptr, ServeRequest, 1000, 1, 0};
    if (TubixCreateServer(&param) != 0) {
        return 2;
    }
    while (true) {
        pause();
    }
}

} // namespace

int main(int argc, char* argv[])
{
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "server") {
        return RunServer();
    }
    fprintf(stderr, "usage: ipc_peer server\n");
    return 1;
}
