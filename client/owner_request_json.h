#ifndef STAVIK_CLIENT_OWNER_REQUEST_JSON_H
#define STAVIK_CLIENT_OWNER_REQUEST_JSON_H

#include <cstdint>
#include <string>

#include "channel/message.h"
#include "client/request_packer.h"

// The requests of the owner tool in their JSON form, one object each, for
// example {"type":"term","apps":["a"]}. docs/owner-tool.md lists the forms.
namespace Stavik {
namespace Client {

struct OwnerRequest {
    enum class Action {
        SEND_RECORD, // send `record`
        CALL_RECORD, // send `record` and wait for the daemon's answer
        SEND_BYTES,  // send `bytes` as one transport message
        SLEEP,       // pause for `sleepMs`
    };

    Action action = Action::SEND_RECORD;
    std::string type; // the "type" word, e.g. "load"
    Message::RequestMsg record{};
    std::string bytes;
    uint32_t sleepMs = 0;
    std::string json; // the request as compact JSON
};

// Reads one request. Start and restart use `ownDialect` unless the request
// names its "dialect" ("zulmgr" or "general"). False with the reason in
// `error` for text that isn't such a request, or a body that doesn't fit a record.
bool ParseOwnerRequest(const std::string& text, Dialect ownDialect, OwnerRequest& request, std::string& error);

} // namespace Client
} // namespace Stavik

#endif
