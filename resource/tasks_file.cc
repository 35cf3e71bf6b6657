#include "resource/tasks_file.h"

#include <fcntl.h>
#include <unistd.h>

namespace Stavik {

bool AppendIdToTasks(const char* path, int64_t id)
{
    if (access(path, F_OK) != 0) {
        return false;
    }
    // Decimal digits and the newline, built from the back.
    char text[24];
    char* begin = text + sizeof(text);
    *--begin = '\n';
    uint64_t magnitude = id < 0 ? 0 - static_cast<uint64_t>(id) : static_cast<uint64_t>(id);
    do {
        *--begin = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (id < 0) {
        *--begin = '-';
    }
    int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t ignored = write(fd, begin, static_cast<size_t>(text + sizeof(text) - begin));
        (void)ignored;
        close(fd);
    }
    return true;
}

} // namespace Stavik
