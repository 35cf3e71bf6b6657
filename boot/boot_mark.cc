#include "boot/boot_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/boot_context.h"
#include "core/boot_strace.h"
#include "core/constants.h"
#include "core/sk_log.h"
#include "core/sys_root.h"

namespace Stavik {
namespace {

const std::string BOOT_DOT_INIT_FILE = "/proc/bootdot/initblk";
const std::string BOOT_DOT_SET_FILE = "/proc/bootdot/setblk";
const std::string SERIAL_CONSOLE = "/dev/ttyAMA0";
const uint32_t BOOT_DOT_BLOCK_ID = 15;
const uint32_t BOOT_DOT_BLOCK_MAGIC = 0x1234ABCD;
const uint32_t BOOT_DOT_INIT_VALUE = 0xA6341001;
const uint32_t BOOT_DOT_INIT_LAST = 0xFFFFFFFF;

std::string Decimal(uint32_t value)
{
    return std::to_string(value);
}

const std::string BOOT_DOT_SET_PREFIX = Decimal(BOOT_DOT_BLOCK_ID) + "," + Decimal(BOOT_DOT_BLOCK_MAGIC) + ",";
const std::string BOOT_DOT_INIT_TEXT = BOOT_DOT_SET_PREFIX + Decimal(BOOT_DOT_INIT_VALUE) + "," +
                                       Decimal(BOOT_DOT_INIT_LAST);
const std::string CONSOLE_MARK_PREFIX = "sk=0x";

// The console shows only the continue point and the end of boot.
bool IsConsoleMark(uint32_t code)
{
    return code == BOOT_MARK_CONTINUE || code == BOOT_MARK_BOOT_DONE || code == 0;
}

} // namespace

void BootContext::BootMark(uint32_t code)
{
    WriteFile(SysPath(BOOT_DOT_SET_FILE), BOOT_DOT_SET_PREFIX + Decimal(code));
    if (!IsConsoleMark(code)) {
        return;
    }
    char hex[16];
    snprintf(hex, sizeof(hex), "%x", code);
    WriteFile(SysPath(SERIAL_CONSOLE), BootStrace(SK_TAG) + CONSOLE_MARK_PREFIX + hex);
}

void BootContext::InitBootDot()
{
    WriteFile(SysPath(BOOT_DOT_INIT_FILE), BOOT_DOT_INIT_TEXT);
}

// The targets are kernel files and the console: never created here, and the
// console never becomes the daemon's controlling terminal. The first mark
// comes before the continue point, hence the channel-aware log.
bool BootContext::WriteFile(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        SK_LOG(LOG_WARNING, "stavik open file=%s fail", path.c_str());
        return false;
    }
    const std::string line = text + "\n";
    size_t done = 0;
    while (done < line.size()) {
        ssize_t written = write(fd, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    close(fd);
    return true;
}

} // namespace Stavik
