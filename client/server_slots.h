#ifndef STAVIK_CLIENT_SERVER_SLOTS_H
#define STAVIK_CLIENT_SERVER_SLOTS_H

#include <cstdint>
#include <string>

#include "tubix.h"

// A server of the IPC library takes plain function pointers and can't be
// stopped, yet one process (a test) may play several owner services, one
// after the other or at once. Each server gets a slot of its own callbacks;
// the object bound to the slot receives them. A slot stays tied to the path
// it serves, so an object that serves the same name in the same runtime
// directory again takes over the listening server rather than failing.
namespace Stavik {
namespace Client {

class ServerCallbacks {
public:
    virtual ~ServerCallbacks() = default;
    // Called on a library thread; those of different pipes may overlap.
    virtual void OnConnect(int32_t fd, const std::string& clientName) = 0;
    // A null request: the peer of fd has gone.
    virtual void OnRequest(int32_t fd, const TubixRequest* req) = 0;
};

// Serves as `name` under the present $TUBIX_DIR and delivers to `target`. The
// IPC library takes the server's name from $PROC_NAME, which is set to `name`
// for the call and then put back.
bool BindServer(const std::string& name, ServerCallbacks* target, std::string& error);

// When this returns no callback runs on `target` any more; pipes that connect
// to its server later are closed at once. Not to be called from a callback.
void UnbindServer(ServerCallbacks* target);

} // namespace Client
} // namespace Stavik

#endif
