#ifndef STAVIK_SUPERVISION_INTEGRITY_H
#define STAVIK_SUPERVISION_INTEGRITY_H

#include <string>
#include <unordered_map>

namespace Stavik {

// The SHA-256 digests of the binaries that may start only unchanged, by base
// name. Loaded once at boot, before any start; read without a lock afterwards.
class IntegrityProtect {
public:
    static IntegrityProtect& Instance();

    // Reads the digest list (resolved under the sandbox root) in place of the
    // one held. A missing file lets every binary pass.
    void LoadHashConfig();
    // Whether the binary at appPath may start. Bare names, and paths without
    // a name before the trailing slashes, are refused.
    bool CheckApp(const std::string& appPath);
    // True for an unlisted name; for a listed one, whether the system's
    // sha256sum prints the listed digest for appPath.
    bool CheckHash(const std::string& name, const std::string& appPath);

private:
    IntegrityProtect() = default;
    IntegrityProtect(const IntegrityProtect&) = delete;
    IntegrityProtect& operator=(const IntegrityProtect&) = delete;

    std::unordered_map<std::string, std::string> hashes_;
};

} // namespace Stavik

#endif
