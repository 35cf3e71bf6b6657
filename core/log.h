#ifndef STAVIK_CORE_LOG_H
#define STAVIK_CORE_LOG_H

#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

namespace Stavik {

// The plain system-log call of the daemon. Lines go to syslog; with
// STAVIK_LOG_STDERR=1 in the environment they are copied to standard error.
void Syslog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void VSyslog(int level, const char* format, va_list args);

// openlog and closelog of the daemon's one log channel. The standard error
// copy names the ident syslog uses: the given one while the log is open, the
// program's name before and after.
void OpenLog(const char* ident);
void CloseLog();

// Writes one already formatted kernel-message record (used by SK_LOG in a
// quick start); it reaches the capture and the stderr copy as well.
void NoteKmsgLine(int level, const std::string& text);

struct CapturedLine {
    int level;
    std::string text;
    bool kmsg;
};

// In-memory capture of formatted lines, so that unit tests can assert exact log text.
class LogCapture {
public:
    static void Begin();
    static void End();
    static std::vector<CapturedLine> Lines();
    static bool Contains(const std::string& text);
    static size_t Count(const std::string& text);
};

} // namespace Stavik

#endif
