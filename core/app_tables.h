#ifndef STAVIK_CORE_APP_TABLES_H
#define STAVIK_CORE_APP_TABLES_H

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/app_info.h"
#include "application_manifest.h"

namespace Stavik {

// Process-wide application tables, beside the one daemon object. Lock order,
// outer first: generalAppMutex_, then baseAppMutex_ or the manifest mutex.
using GeneralAppMap = std::unordered_map<std::string, std::shared_ptr<App::GeneralAppInfo>>;

extern std::vector<App::BaseAppInfo> executedBaseApp_;
extern std::mutex baseAppMutex_;
extern GeneralAppMap generalAppMap_;
extern std::mutex generalAppMutex_;
extern std::vector<ApplicationManifest> baseManifests_;

} // namespace Stavik

#endif
