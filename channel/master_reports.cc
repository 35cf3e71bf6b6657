#include "channel/master.h"
#include "channel/name_tables.h"
#include "channel/serialization.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {

bool Master::ReportAppState(const std::vector<Message::AppStateInfo>& apps, const std::string& owner)
{
    if (apps.empty()) {
        return true;
    }
    std::vector<Serialization::PackedPiece> pieces;
    if (!Serialization::StavikPackAppStateRequest(apps, pieces)) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppState failed: PackAppStateRequest failed, owner=%s", owner.c_str());
        return false;
    }
    std::vector<Message::RequestMsg> records;
    if (!Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, records)) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppState failed: CombinePiecesMsg failed, owner=%s", owner.c_str());
        return false;
    }
    int32_t fd = GetOwnerFd(owner);
    if (fd < 1) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppState failed: invalid fd, owner=%s", owner.c_str());
        return false;
    }
    if (!SendRequestMsg(fd, records)) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppState failed: SendRequestMsg %s failed, fd:%d", owner.c_str(), fd);
        return false;
    }
    for (const Message::AppStateInfo& app : apps) {
        Syslog(LOG_INFO, "%s SK report appState to %s, appState=%s, appName=%s, pid=%u, reason=%u",
               BootStrace(SK_TAG).c_str(), owner.c_str(), GetReportAppStateTypeStr(app.state).c_str(),
               app.appName.c_str(), app.pid, app.reason);
    }
    return true;
}

bool Master::ReportAppDetailStatus(const Message::AppDetailStatusMap& statusMap, const std::string& owner)
{
    if (statusMap.empty()) {
        return true;
    }
    // Cleared although the body says nothing of the rest: no stale memory leaves the daemon.
    std::vector<Message::RequestMsg> records(1);
    if (!Serialization::WriteAppDetailStatusBody(statusMap, records.front())) {
        return false;
    }
    int32_t fd = GetOwnerFd(owner);
    if (fd < 1) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppDetailStatus: invalid fd, owner=%s", owner.c_str());
        return false;
    }
    if (!SendRequestMsg(fd, records)) {
        Syslog(LOG_ERR, "STAVIK : Master ReportAppDetailStatus: SendRequestMsg %s failed, fd:%d", owner.c_str(), fd);
        return false;
    }
    for (const auto& entry : statusMap) {
        Syslog(LOG_DEBUG, "%s SK ReportAppDetailStatus to %s, appName=%s, status=%u", BootStrace(SK_TAG).c_str(),
               owner.c_str(), entry.first.c_str(), entry.second);
    }
    return true;
}

} // namespace Stavik
