#ifndef STAVIK_CLIENT_OWNER_EVENT_H
#define STAVIK_CLIENT_OWNER_EVENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "channel/message.h"
#include "tubix.h"

namespace Stavik {
namespace Client {

// One thing an owner service saw on its pipes.
struct OwnerEvent {
    enum class Kind {
        CONNECTED,    // a client opened a pipe: `client` holds its name
        DISCONNECTED, // the peer of pipe `fd` has gone
        REPORT,       // a REPORT_APP_STATE record: `apps`
        DETAIL,       // a REPORT_APP_DETAIL_STATUS record: `detail`
        RECORD,       // a well-sized record of any other type
        BAD_RECORD,   // a report that doesn't read, or a message that isn't a record: `error`
    };

    Kind kind = Kind::RECORD;
    size_t index = 0; // position in arrival order, counted per session
    int32_t fd = -1;
    std::string client;
    uint32_t length = 0; // bytes of the received transport message
    uint32_t type = 0;   // records: the record's type
    uint64_t size = 0;   // records: the body size
    std::vector<Message::AppStateInfo> apps;
    Message::AppDetailStatusMap detail;
    std::string error;

    // The entry of appName in a REPORT, or null.
    const Message::AppStateInfo* FindApp(const std::string& appName) const;
};

// The word of a kind, as the owner tool prints it ("report", "bad-record", ...).
const char* OwnerEventKindWord(OwnerEvent::Kind kind);

// Decodes one message received on pipe fd; the index is left for the caller.
OwnerEvent DecodeReceived(int32_t fd, const TubixRequest& req);

} // namespace Client
} // namespace Stavik

#endif
