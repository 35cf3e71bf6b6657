#include <cstring>

#include "channel/serialization.h"
#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {

// A null request is how the library says that the owner has gone. Only a log
// line: the pipe is closed by the check thread when it sees the process die.
void StavikDaemon::RequestMsgHandler(int32_t fd, const TubixRequest* req, std::string owner)
{
    if (fd < 1) {
        Syslog(LOG_ERR, "STAVIK : RequestMsgHandler failed: invalid fd=%d", fd);
        return;
    }
    if (req == nullptr) {
        Syslog(LOG_ERR, "STAVIK : fd=%d, owner=%s exit", fd, owner.c_str());
        return;
    }
    if (req->size != sizeof(Message::RequestMsg)) {
        Syslog(LOG_ERR, "STAVIK : RequestMsgHandler size=%u bytes is not illegal ,struct of message size=%lu bytes",
               req->size, sizeof(Message::RequestMsg));
        return;
    }
    if (req->data == nullptr) {
        Syslog(LOG_ERR, "STAVIK : RequestMsgHandler failed: request is null point");
        return;
    }
    // Copied so that the fields are read aligned, whatever the library's buffer is.
    Message::RequestMsg msg;
    memcpy(&msg, req->data, sizeof(msg));
    DispatchRequest(static_cast<Message::RequestType>(msg.type), msg, owner, *req, fd);
}

// Types nobody sends to the daemon (4, 8, 10 and unknown ones) are dropped
// without a word.
void StavikDaemon::DispatchRequest(Message::RequestType type, const Message::RequestMsg& msg,
                                   const std::string& owner, const TubixRequest& req, int32_t fd)
{
    switch (type) {
    case Message::START_APP: {
        std::vector<Message::StartAppInfo> apps;
        Serialization::StavikUnpackStartRequest(msg, apps, owner);
        StartApp(apps, owner);
        break;
    }
    case Message::RESTART_APP: {
        std::vector<Message::RestartAppInfo> apps;
        Serialization::StavikUnpackRestartRequest(msg, apps, owner);
        RestartApp(apps, owner);
        break;
    }
    case Message::TERM_APP: {
        std::vector<Message::TermAppInfo> apps;
        Serialization::StavikUnpackTermRequest(msg, apps);
        TermApp(apps, owner);
        break;
    }
    case Message::BASESERVICE_STATE_REPORT: {
        Message::BaseServiceStateInfo info;
        Serialization::StavikUnpackedBaseServiceStateRequest(msg, info);
        UpdateBaseAppState(owner, info.state);
        break;
    }
    case Message::APP_EXECUTION_REPORT: {
        Message::AppExecInfo info;
        Serialization::StavikUnpackedAppExecInfoRequest(msg, info);
        UpdateAppExecState(info);
        break;
    }
    case Message::LOAD_STARTUP_CFG: {
        Message::StartupCfgInfo info;
        Serialization::StavikUnpackMatchDataAndPathRequest(msg, info);
        HandleLoadStartupCfg(owner, info, req, fd);
        break;
    }
    case Message::RELOAD_STARTUP_CFG: {
        Message::StartupCfgInfo info;
        Serialization::StavikUnpackMatchDataAndPathRequest(msg, info);
        HandleReloadStartupCfg(owner, info, req, fd);
        break;
    }
    case Message::QUERY_APP_STATE: {
        // A body that doesn't read has logged its line and asks for nothing.
        std::vector<std::string> names;
        (void)Serialization::ReadQueryAppStateBody(msg, names);
        QueryAppState(names, owner);
        break;
    }
    default:
        break;
    }
}

} // namespace Stavik
