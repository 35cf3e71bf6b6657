#ifndef STAVIK_CORE_APP_TABLES_H
#define STAVIK_CORE_APP_TABLES_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/app_info.h"
#include "application_manifest.h"

namespace Stavik {

// Process-wide application tables, beside the one daemon object. Lock order,
// outer first: skUploadAppMutex_, generalAppMutex_, then baseAppMutex_ or the
// manifest mutex.
using GeneralAppMap = std::unordered_map<std::string, std::shared_ptr<App::GeneralAppInfo>>;

extern std::vector<App::BaseAppInfo> executedBaseApp_;
extern std::mutex baseAppMutex_;
extern GeneralAppMap generalAppMap_;
extern std::mutex generalAppMutex_;
extern std::vector<ApplicationManifest> baseManifests_;

// A process that announced itself through the upload server; known by pid only.
struct SkUploadAppInfo {
    std::string appName;
    int32_t fd = -1; // the client's pipe at the announcement
    uint32_t gid = 0;
};
extern std::map<int32_t, SkUploadAppInfo> skUploadAppMap_;
extern std::mutex skUploadAppMutex_;

} // namespace Stavik

#endif
