#include "boot/stavik_cfg.h"

#include <sys/stat.h>

#include <cerrno>

#include "core/sk_log.h"
#include "core/sys_root.h"
#include "kvs_type_yaml.h"

namespace Stavik {
namespace {

const std::string WATCH_DOG_KEY = "watch_dog";
const std::string SK_UPLOAD_KEY = "skupload";
const std::string ENABLE_KEY = "enable";
const std::string TIMEOUT_KEY = "timeout";
const std::string ACTION_KEY = "action";

bool IsDigits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool IsWatchDogAction(const std::string& text)
{
    return text == "0" || text == "1" || text == "2";
}

} // namespace

void LoadStavikCfg(const std::string& path, StavikCfg& cfg)
{
    std::string resolved = SysPath(path);
    struct stat info {};
    if (stat(resolved.c_str(), &info) != 0) {
        SK_LOG(LOG_ERR, "LoadStavikCfg file=%s failed. errno=%d", resolved.c_str(), errno);
        return;
    }
    KvsTypeYaml root;
    if (!root.InitYamlNode(resolved)) {
        SK_LOG(LOG_ERR, "LoadStavikCfg file=%s failed. init yaml node failed", resolved.c_str());
        return;
    }
    if (LoadWatchDogCfg(root, cfg)) {
        LoadSkUploadCfg(root, cfg);
    }
}

bool LoadWatchDogCfg(const KvsTypeYaml& root, StavikCfg& cfg)
{
    KvsTypeYaml watchDog;
    if (!root.GetSubKvs(WATCH_DOG_KEY, watchDog)) {
        SK_LOG(LOG_ERR, "LoadWatchDogCfg not exist %s key", WATCH_DOG_KEY.c_str());
        return false;
    }
    // The module's path and name are never taken from the file.
    const StavikCfg defaults;
    KvsTypeYaml value;
    bool enable = defaults.wdEnable;
    if (watchDog.GetSubKvs(ENABLE_KEY, value)) {
        enable = value.GetBool();
    } else {
        SK_LOG(LOG_WARNING, "GetWatchDogEnable is null !");
    }
    std::string timeout = defaults.wdTimeout;
    if (watchDog.GetSubKvs(TIMEOUT_KEY, value)) {
        std::string text = value.GetString();
        timeout = IsDigits(text) ? text : defaults.wdTimeout;
    } else {
        SK_LOG(LOG_WARNING, "GetWatchDogTimeout is null !");
    }
    std::string action = defaults.wdAction;
    if (watchDog.GetSubKvs(ACTION_KEY, value)) {
        std::string text = value.GetString();
        action = IsWatchDogAction(text) ? text : defaults.wdAction;
    } else {
        SK_LOG(LOG_WARNING, "GetWatchDogAction is null !");
    }
    cfg.wdEnable = enable;
    cfg.wdTimeout = timeout;
    cfg.wdAction = action;
    cfg.wdKoPath = defaults.wdKoPath;
    cfg.wdKoName = defaults.wdKoName;
    SK_LOG(LOG_INFO, "STAVIK: LoadWatchDogCfg finish enable=%d, wdTimeout=%s s, wdAction=%s", enable ? 1 : 0,
           timeout.c_str(), action.c_str());
    return true;
}

void LoadSkUploadCfg(const KvsTypeYaml& root, StavikCfg& cfg)
{
    KvsTypeYaml upload;
    if (!root.GetSubKvs(SK_UPLOAD_KEY, upload)) {
        SK_LOG(LOG_ERR, "LoadSkUploadCfg not exist %s key", SK_UPLOAD_KEY.c_str());
        return;
    }
    KvsTypeYaml value;
    bool enable = true;
    if (upload.GetSubKvs(ENABLE_KEY, value)) {
        enable = value.GetBool();
    } else {
        SK_LOG(LOG_WARNING, "GetSkuploadEnable is null !");
    }
    cfg.skUploadEnable_ = enable;
    SK_LOG(LOG_INFO, "STAVIK: LoadSkUploadCfg finish enable=%d", enable ? 1 : 0);
}

} // namespace Stavik
