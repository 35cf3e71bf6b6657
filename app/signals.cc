#include "app/signals.h"

#include <dirent.h>
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>

#include "app/app_info.h"
#include "app/steady_clock.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/log.h"

namespace Stavik {
namespace App {
namespace {

const char FRS_APP_NAME[] = "FRSDaemon";
const char STATUS_NAME[] = "Name";
const char STATUS_PPID[] = "PPid";
const char INIT_PID_TEXT[] = "1";

// Process name of the device task daemon and of its workers.
const std::string& FrsProcName()
{
    static const std::string name = "frsdaemon";
    return name;
}

void LogSignalSent(int32_t signal, const std::string& appName, int32_t pid)
{
    switch (signal) {
        case SIGTERM:
            Syslog(LOG_INFO, "STAVIK : SendSignal: Successfully term appName=%s, pid=%d", appName.c_str(), pid);
            break;
        case SIGKILL:
            Syslog(LOG_INFO, "STAVIK : SendSignal: Successfully kill appName=%s, pid=%d", appName.c_str(), pid);
            break;
        case SIGINT:
            Syslog(LOG_INFO, "STAVIK : SendSignal: Successfully interrupt appName=%s, pid=%d", appName.c_str(), pid);
            break;
        default:
            Syslog(LOG_INFO, "STAVIK : SendSignal: Successfully send %d to appName=%s, pid=%d", signal,
                   appName.c_str(), pid);
            break;
    }
}

// Kills one entry of the /proc scan if it is a worker of frsPid or an orphaned one.
void KillFrsWorker(const char* entryName, int32_t frsPid)
{
    int32_t pid = static_cast<int32_t>(strtol(entryName, nullptr, 10));
    std::map<std::string, std::string> status = {{STATUS_NAME, ""}, {STATUS_PPID, ""}};
    ReadProcStatus(pid, status);
    const std::string& ppid = status[STATUS_PPID];
    if (!IsFrsWorker(status[STATUS_NAME], ppid, frsPid)) {
        return;
    }
    Syslog(LOG_INFO, "STAVIK : TermFrsSubProc kill process %s(ppid=%s, pid=%d)", FrsProcName().c_str(),
           ppid.c_str(), pid);
    SendSignal(SIGKILL, FrsProcName(), pid);
}

} // namespace

bool SendSignal(int32_t signal, const std::string& appName, int32_t pid)
{
    // kill(0, ...) and kill(-1, ...) would reach whole process groups.
    if (pid < 1) {
        Syslog(LOG_ERR, "STAVIK : SendSignal failed: appName %s's pid=%d is invalid", appName.c_str(), pid);
        return false;
    }
    Syslog(LOG_INFO, "STAVIK : SendSignal: %d to app=%s, pid=%d", signal, appName.c_str(), pid);
    if (kill(pid, signal) != 0) {
        Syslog(LOG_ERR, "STAVIK : SendSignal failed: kill failed appName=%s, pid=%d, errno=%d", appName.c_str(), pid,
               errno);
        return false;
    }
    LogSignalSent(signal, appName, pid);
    return true;
}

bool GeneralAppInfo::TermProcess()
{
    if (pid_ < 1) {
        Syslog(LOG_ERR, "STAVIK : TermProcess failed: the pid=%d is invalid", pid_);
        return false;
    }
    // Once the status is collected the pid is free and may be another
    // process's; the process has ended, which is what the request wanted.
    if (hasExitStatus_) {
        Syslog(LOG_INFO, "STAVIK : TermProcess: appName=%s, pid=%d has already ended, no signal sent", appName_.c_str(),
               pid_);
        return true;
    }
    // A failed kill still counts as a request sent: the term time-out will settle it.
    SendSignal(SIGTERM, appName_, pid_);
    return true;
}

void GeneralAppInfo::SetTermBeginTime()
{
    termBeginTime_ = SteadyNowNs();
}

uint64_t GeneralAppInfo::GetTermBeginTime() const
{
    return termBeginTime_;
}

void TermFrsSubProc(const std::string& appName, int32_t pid)
{
    if (appName != FRS_APP_NAME) {
        return;
    }
    Syslog(LOG_INFO, "%s, STAVIK: TermFrsSubProc begin, frsPid=%d", BootStrace(SK_TAG).c_str(), pid);
    if (!IsNameMatch(FrsProcName(), pid)) {
        Syslog(LOG_ERR, "STAVIK : TermFrsSubProc failed: appName %s's pid=%d is invalid", appName.c_str(), pid);
        return;
    }
    DIR* dir = opendir(PROC_PATH.c_str());
    if (dir == nullptr) {
        Syslog(LOG_ERR, "STAVIK: TermFrsSubProc open %s fail", PROC_PATH.c_str());
        return;
    }
    for (struct dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        if (entry->d_type == DT_DIR) {
            KillFrsWorker(entry->d_name, pid);
        }
    }
    if (closedir(dir) != 0) {
        Syslog(LOG_ERR, "STAVIK: TermFrsSubProc close %s fail", PROC_PATH.c_str());
    }
    Syslog(LOG_INFO, "%s, STAVIK: TermFrsSubProc end, frsPid=%d", BootStrace(SK_TAG).c_str(), pid);
}

bool IsFrsWorker(const std::string& name, const std::string& ppid, int32_t frsPid)
{
    return name == FrsProcName() && (ppid == std::to_string(frsPid) || ppid == INIT_PID_TEXT);
}

bool IsNameMatch(const std::string& name, int32_t pid)
{
    if (name.empty() || pid < 2) {
        return false;
    }
    std::map<std::string, std::string> status = {{STATUS_NAME, ""}};
    ReadProcStatus(pid, status);
    return status[STATUS_NAME] == name;
}

// Read through a close-on-exec descriptor: another thread may be forking a child.
void ReadProcStatus(int32_t pid, std::map<std::string, std::string>& status)
{
    if (status.empty()) {
        return;
    }
    const std::string path = PROC_PATH + std::to_string(pid) + "/status";
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return;
    }
    size_t found = 0;
    char* buffer = nullptr;
    size_t capacity = 0;
    ssize_t length = 0;
    while (found < status.size() && (length = getline(&buffer, &capacity, file)) != -1) {
        std::string line(buffer, static_cast<size_t>(length));
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        auto key = status.find(line.substr(0, colon));
        if (key == status.end()) {
            continue;
        }
        key->second = TrimBlanks(line.substr(colon + 1));
        ++found;
    }
    free(buffer);
    fclose(file);
}

std::string TrimBlanks(const std::string& text)
{
    const char blanks[] = " \t";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

} // namespace App
} // namespace Stavik
