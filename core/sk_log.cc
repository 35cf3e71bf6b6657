#include "core/sk_log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "core/boot_context.h"
#include "core/sys_root.h"

namespace Stavik {
namespace {

const char* const KMSG_PATH = "/dev/kmsg";

std::string FormatKmsgRecord(int level, int32_t pid, const char* format, va_list args)
{
    char prefix[64];
    int prefixLength = snprintf(prefix, sizeof(prefix), "<%d> STAVIK[%d] ", level, pid);
    va_list copy;
    va_copy(copy, args);
    int bodyLength = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (prefixLength < 0 || bodyLength < 0) {
        return std::string();
    }
    std::string record(prefix, static_cast<size_t>(prefixLength));
    std::string body(static_cast<size_t>(bodyLength) + 1, '\0');
    vsnprintf(&body[0], body.size(), format, args);
    body.resize(static_cast<size_t>(bodyLength));
    return record + body;
}

// One open and one close per line, so that each line is one kernel record.
void WriteKmsg(int level, const char* format, va_list args)
{
    FILE* kmsg = fopen(SysPath(KMSG_PATH).c_str(), "a+e");
    if (kmsg == nullptr) {
        return;
    }
    std::string record = FormatKmsgRecord(level, BootContext::Instance().selfPid_, format, args);
    fwrite(record.data(), 1, record.size(), kmsg);
    fclose(kmsg);
    NoteKmsgLine(level, record);
}

} // namespace

void SkLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    if (BootContext::Instance().isQuickStart_) {
        WriteKmsg(level, format, args);
    } else {
        VSyslog(level, format, args);
    }
    va_end(args);
}

} // namespace Stavik
