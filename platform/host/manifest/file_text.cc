#include "manifest/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

class FdCloser {
public:
    explicit FdCloser(int fd) : fd_(fd) {}
    ~FdCloser() { close(fd_); }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

private:
    int fd_;
};

std::string ErrnoText(const char* what)
{
    return std::string(what) + ": " + strerror(errno);
}

bool ReadAll(int fd, std::string& text, std::string& error)
{
    char buffer[8192];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = ErrnoText("read failed");
            return false;
        }
        if (got == 0) {
            return true;
        }
        // The size may have grown since fstat; keep the limit on what is really read.
        if (text.size() + static_cast<size_t>(got) > CONFIG_FILE_MAX_BYTES) {
            error = "file is larger than " + std::to_string(CONFIG_FILE_MAX_BYTES) + " bytes";
            return false;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
}

} // namespace

bool ReadRegularFile(const std::string& path, std::string& text, std::string& error)
{
    text.clear();
    // O_NONBLOCK keeps a FIFO put in place of a file from blocking the open.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        error = ErrnoText("cannot open");
        return false;
    }
    FdCloser closer(fd);
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        error = ErrnoText("cannot stat");
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "not a regular file";
        return false;
    }
    if (static_cast<unsigned long long>(info.st_size) > CONFIG_FILE_MAX_BYTES) {
        error = "file is larger than " + std::to_string(CONFIG_FILE_MAX_BYTES) + " bytes";
        return false;
    }
    return ReadAll(fd, text, error);
}
