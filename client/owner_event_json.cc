#include "client/owner_event_json.h"

#include <nlohmann/json.hpp>

#include "channel/name_tables.h"

namespace Stavik {
namespace Client {

// Keys stay in the order written, "event" first, for readers of the lines.
using json = nlohmann::ordered_json;

namespace {

json AppStateJson(const Message::AppStateInfo& app)
{
    return json{{"appName", app.appName},
                {"pid", app.pid},
                {"gid", app.gid},
                {"state", app.state},
                {"stateName", GetReportAppStateTypeStr(app.state)},
                {"reason", app.reason}};
}

void AddBody(const OwnerEvent& event, json& line)
{
    switch (event.kind) {
        case OwnerEvent::Kind::CONNECTED:
            line["client"] = event.client;
            line["fd"] = event.fd;
            break;
        case OwnerEvent::Kind::DISCONNECTED:
            line["fd"] = event.fd;
            break;
        case OwnerEvent::Kind::REPORT:
            line["type"] = "REPORT_APP_STATE";
            line["count"] = event.apps.size();
            line["apps"] = json::array();
            for (const Message::AppStateInfo& app : event.apps) {
                line["apps"].push_back(AppStateJson(app));
            }
            break;
        case OwnerEvent::Kind::DETAIL:
            line["type"] = "REPORT_APP_DETAIL_STATUS";
            line["apps"] = event.detail;
            break;
        case OwnerEvent::Kind::RECORD:
            line["type"] = event.type;
            line["size"] = event.size;
            break;
        case OwnerEvent::Kind::BAD_RECORD:
            line["length"] = event.length;
            if (event.length == sizeof(Message::RequestMsg)) {
                line["type"] = event.type;
                line["size"] = event.size;
            }
            line["message"] = event.error;
            break;
    }
}

} // namespace

std::string OwnerEventJson(const OwnerEvent& event)
{
    json line{{"event", OwnerEventKindWord(event.kind)}};
    AddBody(event, line);
    return line.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace Client
} // namespace Stavik
