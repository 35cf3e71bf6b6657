#ifndef STAVIK_APP_SIGNALS_H
#define STAVIK_APP_SIGNALS_H

#include <cstdint>
#include <map>
#include <string>

namespace Stavik {
namespace App {

// The daemon's one way of signalling a process; never signals a pid below 1.
bool SendSignal(int32_t signal, const std::string& appName, int32_t pid);

// Before the device task daemon "FRSDaemon" is killed, its "frsdaemon"
// workers (children of pid, or adopted by init) are killed one by one.
void TermFrsSubProc(const std::string& appName, int32_t pid);

// A worker to kill along with the device task daemon frsPid: a "frsdaemon"
// whose parent is frsPid, or init once that parent has died.
bool IsFrsWorker(const std::string& name, const std::string& ppid, int32_t frsPid);

// Whether the Name line of the process's status equals name.
bool IsNameMatch(const std::string& name, int32_t pid);

// Fills the values of the keys of status from /proc/<pid>/status; leaves the
// map as it is when the file can't be read.
void ReadProcStatus(int32_t pid, std::map<std::string, std::string>& status);

// A status value without the blanks and tabs around it.
std::string TrimBlanks(const std::string& text);

} // namespace App
} // namespace Stavik

#endif
