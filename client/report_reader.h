#ifndef STAVIK_CLIENT_REPORT_READER_H
#define STAVIK_CLIENT_REPORT_READER_H

#include <string>
#include <vector>

#include "channel/message.h"

// Owner side: readers of the two reports the daemon sends. They trust nothing in
// the record: a wrong type, a size beyond the data, a malformed or truncated
// body, or bytes left over give false with the reason in `error`, and leave the
// output empty.
namespace Stavik {
namespace Client {

// REPORT_APP_STATE: "count#" and count entries "appName#pid#gid#state#reason#".
bool ReadAppStateReport(const Message::RequestMsg& msg, std::vector<Message::AppStateInfo>& infos,
                        std::string& error);

// REPORT_APP_DETAIL_STATUS: binary count, then per entry length, name and status.
bool ReadAppDetailStatus(const Message::RequestMsg& msg, Message::AppDetailStatusMap& statusMap,
                         std::string& error);

} // namespace Client
} // namespace Stavik

#endif
