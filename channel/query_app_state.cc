#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/stavik_daemon.h"

namespace Stavik {

// generalAppMutex_ is held across the answer, so that no record goes away
// between its question to the kernel and the report.
void StavikDaemon::QueryAppState(const std::vector<std::string>& names, const std::string& owner)
{
    // Every name counts, an empty one too: the owner sees what it sent.
    std::string appList;
    for (size_t i = 0; i < names.size(); ++i) {
        appList += (i == 0 ? "" : ",") + names[i];
    }
    Syslog(LOG_DEBUG, "%s SK receive QUERY_APP_STATE msg from %s, appList=%s", BootStrace(SK_TAG).c_str(),
           owner.c_str(), appList.c_str());
    std::lock_guard<std::mutex> lock(generalAppMutex_);
    Message::AppDetailStatusMap statusMap;
    for (const std::string& name : names) {
        auto found = generalAppMap_.find(name);
        statusMap[name] = found == generalAppMap_.end() ? static_cast<uint32_t>(Message::DETAIL_STATUS_ABSENT)
                                                        : static_cast<uint32_t>(found->second->QueryStopped());
    }
    (void)ReportAppDetailStatus(statusMap, owner);
    Syslog(LOG_DEBUG, "%s SK finish QUERY_APP_STATE request from %s", BootStrace(SK_TAG).c_str(), owner.c_str());
}

} // namespace Stavik
