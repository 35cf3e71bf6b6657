#include <algorithm>
#include <climits>

#include "app/app_info.h"
#include "app/manifest_parser.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

constexpr int32_t PARA_EXEC_PATH = 0;
constexpr int32_t PARA_VF_ID = 1;
constexpr int32_t PARA_ENV = 2;

const std::vector<std::string>& ValuesOf(const DynamicParaMap& parameters, int32_t slot)
{
    static const std::vector<std::string> none;
    auto found = parameters.find(slot);
    return found == parameters.end() ? none : found->second;
}

bool IsDynamic(const std::string& value)
{
    return ManifestParser().IsDynamicPara(value);
}

bool Matches(const std::string& pattern, const std::string& value)
{
    return ManifestParser().IsDynamicParaMatch(pattern, value);
}

// Decimal vfid of a request: "" is 0; a non-digit or a value beyond int32 is -1.
int32_t ParseVfId(const std::string& text)
{
    int64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
        if (value > INT32_MAX) {
            return -1;
        }
    }
    return static_cast<int32_t>(value);
}

} // namespace

void GeneralAppInfo::ComputeDynamicMembers(const ApplicationManifest& manifest)
{
    if (!isDynamicPara_) {
        return;
    }
    isDynamicExecPath_ = IsDynamic(execPath_);
    execPathPattern_ = execPath_;
    isDynamicArgs_ = std::any_of(arguments_.begin(), arguments_.end(), IsDynamic);
    argPatterns_ = arguments_;
    isDynamicEnv_ = std::any_of(env_.begin(), env_.end(), [](const auto& entry) { return IsDynamic(entry.second); });
    envPatterns_ = env_;
    vfIdPattern_ = manifest.GetVfIdPattern();
    isDynamicVfId_ = IsDynamic(vfIdPattern_);
}

bool GeneralAppInfo::UpdateDynamicPara(const std::vector<std::string>& arguments, const DynamicParaMap& parameters)
{
    if (!isDynamicPara_) {
        return true;
    }
    UpdateArgs(arguments);
    // Each step keeps what it changed even when a later one refuses the request.
    return UpdateExecvPath(ValuesOf(parameters, PARA_EXEC_PATH)) && UpdateVfId(ValuesOf(parameters, PARA_VF_ID)) &&
           UpdateEnv(ValuesOf(parameters, PARA_ENV));
}

void GeneralAppInfo::UpdateArgs(const std::vector<std::string>& arguments)
{
    if (isDynamicArgs_) {
        arguments_ = arguments;
    }
}

bool GeneralAppInfo::UpdateExecvPath(const std::vector<std::string>& values)
{
    if (!isDynamicExecPath_) {
        return true;
    }
    if (values.size() != 1) {
        Syslog(LOG_ERR, "STAVIK : dynamic execPath vector size invalid, %zu", values.size());
        return false;
    }
    const std::string& path = values.front();
    if (path.empty()) {
        Syslog(LOG_ERR, "STAVIK : dynamic execPath invalid, is empty");
        return false;
    }
    if (!Matches(execPathPattern_, path)) {
        Syslog(LOG_ERR, "STAVIK : dynamic execPath invalid, pattern=%s, execPath=%s", execPathPattern_.c_str(),
               path.c_str());
        return false;
    }
    execPath_ = path;
    Syslog(LOG_INFO, "STAVIK : UpdateExecvPath dynamic appName=%s, execPath=%s", appName_.c_str(), execPath_.c_str());
    return true;
}

bool GeneralAppInfo::UpdateVfId(const std::vector<std::string>& values)
{
    if (!isDynamicVfId_) {
        return true;
    }
    if (values.empty()) {
        Syslog(LOG_WARNING, "STAVIK : dynamic vfid vector size invalid, use default value");
        vfId_ = -1;
        return true;
    }
    const std::string& text = values.front();
    if (!Matches(vfIdPattern_, text)) {
        Syslog(LOG_ERR, "STAVIK : dynamic vfid invalid, pattern=%s, vfid=%s", vfIdPattern_.c_str(), text.c_str());
        return false;
    }
    vfId_ = ParseVfId(text);
    Syslog(LOG_INFO, "STAVIK : UpdateVfId dynamic appName=%s, vfId=%d", appName_.c_str(), vfId_);
    return true;
}

bool GeneralAppInfo::UpdateEnv(const std::vector<std::string>& values)
{
    if (!isDynamicEnv_) {
        return true;
    }
    // Dynamic entries exist only when the request brings them.
    env_.clear();
    std::string logText;
    for (const auto& [key, value] : envPatterns_) {
        if (!IsDynamic(value)) {
            env_[key] = value;
            logText += key + "=" + value + " ";
        }
    }
    for (const std::string& entry : values) {
        size_t equal = entry.find('=');
        if (equal == std::string::npos || equal == 0 || equal == entry.size() - 1) {
            Syslog(LOG_ERR, "STAVIK : dynamic env invalid, %s", entry.c_str());
            return false;
        }
        std::string key = entry.substr(0, equal);
        auto pattern = envPatterns_.find(key);
        if (pattern == envPatterns_.end()) {
            Syslog(LOG_WARNING, "STAVIK : dynamic env key not in yaml cfg, %s, ignore it", entry.c_str());
            continue;
        }
        std::string value = entry.substr(equal + 1);
        if (!Matches(pattern->second, value)) {
            Syslog(LOG_ERR, "STAVIK : dynamic env value invalid, key=%s, pattern=%s, env=%s", key.c_str(),
                   pattern->second.c_str(), entry.c_str());
            return false;
        }
        env_[key] = value;
        logText += key + "=" + value + " ";
    }
    Syslog(LOG_INFO, "STAVIK : UpdateEnv dynamic appName=%s, env=%s", appName_.c_str(), logText.c_str());
    return true;
}

} // namespace App
} // namespace Stavik
