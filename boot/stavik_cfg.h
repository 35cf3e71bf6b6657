#ifndef STAVIK_BOOT_STAVIK_CFG_H
#define STAVIK_BOOT_STAVIK_CFG_H

#include <string>

class KvsTypeYaml;

namespace Stavik {

// The daemon's own settings: the watchdog module and the upload server.
struct StavikCfg {
    bool wdEnable = true;
    // Seconds, as text: it goes into a module parameter.
    std::string wdTimeout = "60";
    // "0", "1" or "2".
    std::string wdAction = "2";
    std::string wdKoPath = "/var/sbsa_gwdt.ko";
    std::string wdKoName = "sbsa_gwdt";
    bool skUploadEnable_ = false;
};

// Reads the file (resolved under the sandbox root) over the defaults in cfg.
// Nothing beyond "watch_dog" is read when that section is missing.
void LoadStavikCfg(const std::string& path, StavikCfg& cfg);
bool LoadWatchDogCfg(const KvsTypeYaml& root, StavikCfg& cfg);
// A section without "enable" turns the server on; no section leaves it as it was.
void LoadSkUploadCfg(const KvsTypeYaml& root, StavikCfg& cfg);

} // namespace Stavik

#endif
