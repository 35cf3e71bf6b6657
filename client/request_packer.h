#ifndef STAVIK_CLIENT_REQUEST_PACKER_H
#define STAVIK_CLIENT_REQUEST_PACKER_H

#include <string>
#include <vector>

#include "channel/message.h"

// Owner side: each packer writes one complete record (zeroed, type, size, body)
// that the daemon reads as one request. A value the daemon would misread or
// refuse, or a body that doesn't fit the record, gives false and says why in
// `error`; `msg` is then left as it was. A larger request is the caller's to
// split into several records.
namespace Stavik {
namespace Client {

// The daemon reads start and restart bodies of "zulmgr" without the dynamic
// block: the dialect follows the name of the sending service.
enum class Dialect {
    GENERAL, // every owner but "zulmgr": each entry carries its dynamic block
    ZUL_MGR, // "zulmgr": entries end after their arguments
};

// The dialect the daemon expects from the service named `ownName`.
Dialect DialectFor(const std::string& ownName);

bool PackStartRequest(const std::vector<Message::StartAppInfo>& apps, Dialect dialect, Message::RequestMsg& msg,
                      std::string& error);
bool PackRestartRequest(const std::vector<Message::RestartAppInfo>& apps, Dialect dialect,
                        Message::RequestMsg& msg, std::string& error);
bool PackTermRequest(const std::vector<Message::TermAppInfo>& apps, Message::RequestMsg& msg, std::string& error);
bool PackBaseServiceStateRequest(const Message::BaseServiceStateInfo& info, Message::RequestMsg& msg,
                                 std::string& error);
bool PackAppExecRequest(const Message::AppExecInfo& info, Message::RequestMsg& msg, std::string& error);
// `type` is LOAD_STARTUP_CFG or RELOAD_STARTUP_CFG.
bool PackStartupCfgRequest(Message::RequestType type, const Message::StartupCfgInfo& info,
                           Message::RequestMsg& msg, std::string& error);
bool PackQueryAppStateRequest(const std::vector<std::string>& names, Message::RequestMsg& msg, std::string& error);

} // namespace Client
} // namespace Stavik

#endif
