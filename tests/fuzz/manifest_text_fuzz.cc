// The text of a manifest file as the manifest library reads it: the input is
// written to an in-memory file that is read through its /proc path.
#include <sys/mman.h>

#include <fstream>
#include <string>
#include <vector>

#include "core/log.h"
#include "manifest/manifest_reader.h"
#include "fuzz_support.h"

namespace {

// The path of an in-memory file, made once.
const std::string& ScratchPath()
{
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("manifest.yaml", MFD_CLOEXEC));
    return path;
}

bool Store(const uint8_t* bytes, size_t length)
{
    std::ofstream file(ScratchPath(), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(length));
    return file.good();
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
    const std::string& path = ScratchPath();
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
