#include "core/log.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace Stavik {
namespace {

// A kernel record names the daemon itself, whatever syslog's ident.
const char KMSG_IDENT[] = "STAVIK";

struct CaptureState {
    std::mutex mutex;
    bool active = false;
    std::vector<CapturedLine> lines;
};

CaptureState& Capture()
{
    static CaptureState state;
    return state;
}

bool StderrCopyWanted()
{
    static const bool wanted = [] {
        const char* value = getenv("STAVIK_LOG_STDERR");
        return value != nullptr && strcmp(value, "1") == 0;
    }();
    return wanted;
}

std::atomic<const char*>& Ident()
{
    static std::atomic<const char*> ident{program_invocation_short_name};
    return ident;
}

void Record(int level, const std::string& text, bool kmsg)
{
    if (StderrCopyWanted()) {
        // One write per line, so that lines of different threads don't interleave.
        const char* ident = kmsg ? KMSG_IDENT : Ident().load();
        std::string line = std::string(kmsg ? "kmsg " : "") + ident + "[" + std::to_string(getpid()) + "] <" +
                           std::to_string(level) + "> " + text + "\n";
        ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
    CaptureState& capture = Capture();
    std::lock_guard<std::mutex> guard(capture.mutex);
    if (capture.active) {
        capture.lines.push_back(CapturedLine{level, text, kmsg});
    }
}

std::string Format(const char* format, va_list args)
{
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string();
    }
    if (static_cast<size_t>(needed) < sizeof(small)) {
        return std::string(small, static_cast<size_t>(needed));
    }
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

} // namespace

void OpenLog(const char* ident)
{
    openlog(ident, LOG_PID, LOG_USER);
    Ident().store(ident);
}

void CloseLog()
{
    closelog();
    Ident().store(program_invocation_short_name);
}

void VSyslog(int level, const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    std::string text = Format(format, copy);
    va_end(copy);
    syslog(level, "%s", text.c_str());
    Record(level, text, false);
}

void Syslog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VSyslog(level, format, args);
    va_end(args);
}

void NoteKmsgLine(int level, const std::string& text)
{
    Record(level, text, true);
}

void LogCapture::Begin()
{
    CaptureState& capture = Capture();
    std::lock_guard<std::mutex> guard(capture.mutex);
    capture.active = true;
    capture.lines.clear();
}

void LogCapture::End()
{
    CaptureState& capture = Capture();
    std::lock_guard<std::mutex> guard(capture.mutex);
    capture.active = false;
    capture.lines.clear();
}

std::vector<CapturedLine> LogCapture::Lines()
{
    CaptureState& capture = Capture();
    std::lock_guard<std::mutex> guard(capture.mutex);
    return capture.lines;
}

bool LogCapture::Contains(const std::string& text)
{
    return Count(text) > 0;
}

size_t LogCapture::Count(const std::string& text)
{
    CaptureState& capture = Capture();
    std::lock_guard<std::mutex> guard(capture.mutex);
    size_t count = 0;
    for (const CapturedLine& line : capture.lines) {
        if (line.text.find(text) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

} // namespace Stavik
