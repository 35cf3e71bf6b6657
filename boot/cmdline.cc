#include "boot/cmdline.h"

#include <fstream>

#include "core/boot_context.h"
#include "core/sk_log.h"
#include "core/standardization_path.h"
#include "core/sys_root.h"

namespace Stavik {
namespace {

const std::string KERNEL_CMDLINE = "/proc/cmdline";
const std::string STAVIK_CFG_DIR = "/etc/qel/base-plat/stavik-daemon/";
const std::string FAIL_SAFE_YAML = "startup_stavik_suspend_resume_fail.yaml";
const std::string BOOT_ARG_SEPARATOR = ",";
const std::string STAVIK_KEY = "stavik";
const std::string YRN_MODE_KEY = "yrnmode";
const std::string REBOOT_REASON_KEY = "reboot_reason";
const std::string NO_WATCHDOG = "nowatchdog";
const std::string KERNEL_UTILS = "kernel_utils";
const std::string BOOT_TOKEN = "boot:";
const char* const FAIL_REASONS[] = {"SUSPEND_FAIL", "RESUME_FAIL"};

bool IsFailReason(const std::string& token)
{
    for (const char* reason : FAIL_REASONS) {
        if (token.find(reason) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

std::set<std::string> ParseBootArgs(std::string line, const std::string& key, const std::string& separator)
{
    std::set<std::string> tokens;
    size_t at = line.find(key);
    if (at == std::string::npos) {
        SK_LOG(LOG_WARNING, "key=%s not found in cmdline.", key.c_str());
        return tokens;
    }
    // The one character behind the key is the "=" of any real command line.
    size_t valueStart = at + key.size() + 1;
    if (valueStart > line.size()) {
        SK_LOG(LOG_ERR, "Stavik: cmdline key=%s ends the line without a value, taken as absent", key.c_str());
        return tokens;
    }
    line.erase(0, valueStart);
    size_t blank = line.find(' ');
    if (blank != std::string::npos) {
        line.erase(blank);
    }
    SK_LOG(LOG_INFO, "Stavik boot args, %s=%s", key.c_str(), line.c_str());
    for (size_t cut = line.find(separator); cut != std::string::npos; cut = line.find(separator)) {
        if (cut > 0) {
            tokens.insert(line.substr(0, cut));
        }
        line.erase(0, cut + separator.size());
    }
    if (!line.empty()) {
        tokens.insert(line);
    }
    return tokens;
}

void BootContext::UpdateSelinuxEnable()
{
    SK_LOG(LOG_INFO, "sk UpdateSelinuxEnable success: enable=%d", selinuxEnable_ ? 1 : 0);
}

// A missing file gives no line at all: every flag keeps its initial value.
void BootContext::ParseCmdline()
{
    std::ifstream cmdline(SysPath(KERNEL_CMDLINE));
    std::string line;
    while (std::getline(cmdline, line)) {
        std::set<std::string> options = ParseBootArgs(line, STAVIK_KEY, BOOT_ARG_SEPARATOR);
        if (options.count(NO_WATCHDOG) != 0) {
            disableWatchDog_ = true;
        }
        SK_LOG(LOG_INFO, "Stavik: cmdline disableWatchDog_=%u", disableWatchDog_ ? 1U : 0U);
        for (const auto& row : ENABLE_TABLE) {
            if (options.count(row.first) != 0) {
                enableFeatures_.emplace(row.first, 0);
                SK_LOG(LOG_INFO, "Stavik: %s need enable", row.second.c_str());
            }
        }
        for (const std::string& option : options) {
            size_t boot = option.find(BOOT_TOKEN);
            if (boot == std::string::npos) {
                continue;
            }
            std::string path = SysPath(STAVIK_CFG_DIR + option.substr(boot + BOOT_TOKEN.size()));
            std::string normalised;
            if (StandardizationPath(path, normalised)) {
                cmdlineStartupYaml_ = normalised;
                SK_LOG(LOG_INFO, "Stavik: cmdline cfg startup yaml: %s", cmdlineStartupYaml_.c_str());
            } else {
                SK_LOG(LOG_ERR, "Stavik: cmdline cfg startup yaml %s standardizationPath failed,use default path",
                       path.c_str());
            }
        }
        if (ParseBootArgs(line, YRN_MODE_KEY, BOOT_ARG_SEPARATOR).count(KERNEL_UTILS) != 0) {
            yrncoreEnable_ = true;
        }
        SK_LOG(LOG_INFO, "Stavik: cmdline yrncoreEnable=%u", yrncoreEnable_ ? 1U : 0U);
    }
}

void BootContext::ParseRebootReason()
{
    std::ifstream cmdline(SysPath(KERNEL_CMDLINE));
    std::string line;
    while (std::getline(cmdline, line)) {
        for (const std::string& reason : ParseBootArgs(line, REBOOT_REASON_KEY, BOOT_ARG_SEPARATOR)) {
            if (!IsFailReason(reason)) {
                continue;
            }
            std::string path = SysPath(STAVIK_CFG_DIR + FAIL_SAFE_YAML);
            std::string normalised;
            if (!StandardizationPath(path, normalised)) {
                SK_LOG(LOG_WARNING, "Stavik: cmdline cfg startup yaml %s standardizationPath failed", path.c_str());
                continue;
            }
            cmdlineStartupYaml_ = normalised;
            SK_LOG(LOG_INFO, "Stavik: cmdline cfg startup yaml: %s", cmdlineStartupYaml_.c_str());
        }
    }
}

void BootContext::UpdateStartupYaml(std::string& path)
{
    if (cmdlineStartupYaml_.empty()) {
        return;
    }
    SK_LOG(LOG_INFO, "Stavik: startup yaml %s replaced by cmdline startup yaml %s", path.c_str(),
           cmdlineStartupYaml_.c_str());
    path = cmdlineStartupYaml_;
}

// No board interface exists on this platform.
void BootContext::GetBoardInfo()
{
    slotId_ = -1;
    SK_LOG(LOG_WARNING, "sk Get board info success slotId_=%d", slotId_);
}

} // namespace Stavik
