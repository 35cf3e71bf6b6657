// The text of a manifest file as the manifest library reads it: the input is
// written to an in-memory file that is read through its /proc path.
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "manifest/manifest_reader.h"
#include "fuzz_support.h"

namespace {

struct TextFile {
    TextFile() : fd(memfd_create("manifest.yaml", MFD_CLOEXEC)), path("/proc/self/fd/" + std::to_string(fd)) {}

    int fd;
    std::string path;
};

TextFile& Scratch()
{
    static TextFile file;
    return file;
}

bool Store(const uint8_t* bytes, size_t length)
{
    const int fd = Scratch().fd;
    if (fd < 0 || ftruncate(fd, 0) != 0) {
        return false;
    }
    size_t done = 0;
    while (done < length) {
        ssize_t put = pwrite(fd, bytes + done, length - done, static_cast<off_t>(done));
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

// A refused file leaves an error line that names it.
bool FaultNamed(const std::string& path)
{
    for (const Stavik::CapturedLine& line : Stavik::LogCapture::Lines()) {
        if (line.level <= LOG_ERR && line.text.find(path) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Stavik::Fuzz::Require(Store(bytes, length));
    const std::string& path = Scratch().path;
    std::vector<ApplicationManifest> apps;
    Stavik::LogCapture::Begin();
    ManifestResult result = ReadManifestFile(path, {}, apps);
    const bool named = FaultNamed(path);
    Stavik::LogCapture::End();
    Stavik::Fuzz::Require(result >= MANIFEST_OK && result <= MANIFEST_BAD_VALUE);
    Stavik::Fuzz::Require(result == MANIFEST_OK || named);
    Stavik::Fuzz::Require(result != MANIFEST_UNREADABLE && result != MANIFEST_BAD_TYPE);
    return 0;
}
