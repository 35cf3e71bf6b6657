#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "core/constants.h"
#include "core/log.h"
#include "core/sys_root.h"
#include "resource/cgroup_mgr.h"

namespace Stavik {
namespace {

const std::string HOST_CFG_FILE = "/usr/bin/qel/env.cfg";
const std::string KERNEL_CMDLINE = "/proc/cmdline";
const std::string BUFFER_IO_WORD = "cgroup1_writeback";
const std::string HOST_CPU_SWITCH = "HOST_CPU_SWITCH";
// Block I/O keys belong to the platform's settings, the daemon has no use for them.
const char* const IGNORED_KEYS[] = {"HOST_BLKIO_SWITCH", "HOST_BLKIO_WRITE_BPS_SET", "HOST_BLKIO_READ_BPS_SET"};
constexpr size_t LINE_BUFFER = 512;

// Letters, digits and the seven characters of the file's values; anything
// else, a blank or a "#" included, makes a line a comment.
bool IsPermitted(unsigned char c)
{
    static const auto table = [] {
        std::array<bool, 256> permitted {};
        for (int c = 0; c < 256; ++c) {
            permitted[c] = isalnum(c) != 0 && c < 128;
        }
        for (char c : std::string(":=;_'\"/")) {
            permitted[static_cast<unsigned char>(c)] = true;
        }
        return permitted;
    }();
    return table[c];
}

bool IsPermittedLine(const std::string& line)
{
    for (char c : line) {
        if (!IsPermitted(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

std::string RemoveQuotes(const std::string& value)
{
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        return value.substr(1, value.size() - 2);
    }
    return value;
}

bool IsIgnoredKey(const std::string& key)
{
    for (const char* ignored : IGNORED_KEYS) {
        if (key == ignored) {
            return true;
        }
    }
    return false;
}

} // namespace

CgroupMgr& CgroupMgr::Instance()
{
    static CgroupMgr instance;
    return instance;
}

void CgroupMgr::ReadCfg()
{
    const std::string path = SysPath(HOST_CFG_FILE);
    if (access(path.c_str(), R_OK) != 0) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr ReadCfg, access %s fail, errno=%d", path.c_str(), errno);
        isCfgOk_ = false;
        return;
    }
    ReadCfgLines(path);
    DetectBlkIo();
    DumpCfg();
}

// A line of 511 characters or more ends the read: its first 511 characters
// still count as a line, nothing behind them is read.
void CgroupMgr::ReadCfgLines(const std::string& path)
{
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return;
    }
    bool streamOk = true;
    while (streamOk && isCfgOk_) {
        char buffer[LINE_BUFFER] = {};
        if (fgets(buffer, sizeof(buffer), file) == nullptr) {
            break;
        }
        std::string line(buffer);
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        } else if (line.size() == LINE_BUFFER - 1) {
            streamOk = false;
        }
        size_t equals = line.find('=');
        if (equals == std::string::npos || equals == 0 || equals == line.size() - 1 || !IsPermittedLine(line)) {
            continue;
        }
        HandleItem(line.substr(0, equals), line.substr(equals + 1));
    }
    fclose(file);
}

void CgroupMgr::HandleItem(const std::string& key, const std::string& value)
{
    if (IsIgnoredKey(key)) {
        return;
    }
    if (key == HOST_CPU_SWITCH) {
        hostCpuSwitch_ = RemoveQuotes(value) != "0";
        return;
    }
    ParsePolicy(key, value);
}

// "group:percent;group:percent": the group name is kept across ";", so
// "a:10;20" overwrites a, and "a:10;" fails on an empty number.
void CgroupMgr::ParsePolicy(const std::string& key, const std::string& value)
{
    std::string name;
    std::string collected;
    for (char c : RemoveQuotes(value)) {
        if (c == ':') {
            name = collected;
            collected.clear();
        } else if (c == ';') {
            if (!StorePolicy(key, name, collected)) {
                isCfgOk_ = false;
                return;
            }
            collected.clear();
        } else {
            collected += c;
        }
    }
    if (!name.empty() && !StorePolicy(key, name, collected)) {
        isCfgOk_ = false;
    }
}

bool CgroupMgr::StorePolicy(const std::string& key, const std::string& name, const std::string& number)
{
    if (name.empty() || number.empty()) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr cgroup set(%s) config invalid, groupName(%s) or value(%s) is empty",
               key.c_str(), name.c_str(), number.c_str());
        return false;
    }
    int32_t& stored = policies_[key][name];
    try {
        stored = std::stoi(number);
    } catch (const std::logic_error&) {
        Syslog(LOG_ERR, "STAVIK: CgroupMgr cgroup set(%s) config invalid, groupName=%s, value=%s", key.c_str(),
               name.c_str(), number.c_str());
        return false;
    }
    return true;
}

void CgroupMgr::DetectBlkIo()
{
    if (access(SysPath(CGROUP_BLKIO).c_str(), F_OK) != 0) {
        blkIoSwitch_ = false;
        return;
    }
    blkIoSwitch_ = true;
    std::ifstream cmdline(SysPath(KERNEL_CMDLINE));
    std::string line;
    while (std::getline(cmdline, line)) {
        if (line.find(BUFFER_IO_WORD) != std::string::npos) {
            bufferIoSwitch_ = true;
        }
    }
}

void CgroupMgr::DumpCfg() const
{
    Syslog(LOG_INFO, "STAVIK: CgroupMgr CPU_NUM=%d, hostCpuSwitch=%d, BlkIoSwitch=%d, BufferIoSwitch=%d, isCfgOk=%d",
           CPU_NUM, hostCpuSwitch_, blkIoSwitch_, bufferIoSwitch_, isCfgOk_);
    for (const auto& policy : policies_) {
        std::string text = "policy " + policy.first + "=";
        for (const auto& group : policy.second) {
            text += group.first + ":" + std::to_string(group.second) + ";";
        }
        Syslog(LOG_INFO, "STAVIK: CgroupMgr cfg: %s", text.c_str());
    }
}

} // namespace Stavik
