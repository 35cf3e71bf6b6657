#include "core/boot_context.h"

#include "core/sk_log.h"

namespace Stavik {

const std::map<std::string, std::string> ENABLE_TABLE = {
    {"em", "emService.yaml"},
};

bool BootContext::IsEnableByCmdline(const std::string& cfgPath)
{
    for (const auto& row : ENABLE_TABLE) {
        if (cfgPath.find(row.second) == std::string::npos) {
            continue;
        }
        auto feature = enableFeatures_.find(row.first);
        if (feature != enableFeatures_.end()) {
            feature->second = 1;
            return true;
        }
        SK_LOG(LOG_INFO, "Stavik: %s will not enable as not configured in cmdline", cfgPath.c_str());
        return false;
    }
    return true;
}

void BootContext::CheckEnableFeatures()
{
    for (const auto& feature : enableFeatures_) {
        if (feature.second == 0) {
            SK_LOG(LOG_ERR, "%s need enable, but not rightly configured", feature.first.c_str());
        }
    }
}

} // namespace Stavik
