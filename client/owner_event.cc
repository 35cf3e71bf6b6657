#include "client/owner_event.h"

#include <cstring>

#include "client/report_reader.h"

namespace Stavik {
namespace Client {

using Message::RequestMsg;

const Message::AppStateInfo* OwnerEvent::FindApp(const std::string& appName) const
{
    for (const Message::AppStateInfo& app : apps) {
        if (app.appName == appName) {
            return &app;
        }
    }
    return nullptr;
}

const char* OwnerEventKindWord(OwnerEvent::Kind kind)
{
    switch (kind) {
        case OwnerEvent::Kind::CONNECTED:
            return "connected";
        case OwnerEvent::Kind::DISCONNECTED:
            return "disconnected";
        case OwnerEvent::Kind::REPORT:
            return "report";
        case OwnerEvent::Kind::DETAIL:
            return "detail";
        case OwnerEvent::Kind::RECORD:
            return "record";
        case OwnerEvent::Kind::BAD_RECORD:
            return "bad-record";
    }
    return "unknown";
}

namespace {

void DecodeRecord(const RequestMsg& msg, OwnerEvent& event)
{
    event.type = msg.type;
    event.size = msg.size;
    bool read = true;
    if (msg.type == Message::REPORT_APP_STATE) {
        event.kind = OwnerEvent::Kind::REPORT;
        read = ReadAppStateReport(msg, event.apps, event.error);
    } else if (msg.type == Message::REPORT_APP_DETAIL_STATUS) {
        event.kind = OwnerEvent::Kind::DETAIL;
        read = ReadAppDetailStatus(msg, event.detail, event.error);
    } else {
        event.kind = OwnerEvent::Kind::RECORD;
    }
    if (!read) {
        event.kind = OwnerEvent::Kind::BAD_RECORD;
    }
}

} // namespace

OwnerEvent DecodeReceived(int32_t fd, const TubixRequest& req)
{
    OwnerEvent event;
    event.fd = fd;
    event.length = req.size;
    if (req.data == nullptr || req.size != sizeof(RequestMsg)) {
        event.kind = OwnerEvent::Kind::BAD_RECORD;
        event.error = "message of " + std::to_string(req.size) + " bytes is not a record of " +
                      std::to_string(sizeof(RequestMsg)) + " bytes";
        return event;
    }
    // The library's buffer has no alignment promise; the copy has.
    RequestMsg msg;
    memcpy(&msg, req.data, sizeof(msg));
    DecodeRecord(msg, event);
    return event;
}

} // namespace Client
} // namespace Stavik
