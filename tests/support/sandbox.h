#ifndef STAVIK_TESTS_SUPPORT_SANDBOX_H
#define STAVIK_TESTS_SUPPORT_SANDBOX_H

#include <sys/types.h>

#include <string>

namespace Stavik {
namespace Test {

// A throw-away system root for one test: fixed paths of the daemon resolve
// under it, and its own IPC directory. Removed at the end of the test.
class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& Root() const { return root_; }
    std::string Path(const std::string& systemPath) const { return root_ + systemPath; }
    std::string TubixDir() const { return root_ + "/run/tubix"; }
    // Writes a file under the root (parents created) and returns its full path.
    std::string WriteFile(const std::string& systemPath, const std::string& content, mode_t mode = 0644) const;
    // Copies a program under the root and returns the full path.
    std::string CopyProgram(const std::string& program, const std::string& systemPath, mode_t mode = 0755) const;
    std::string ReadFile(const std::string& systemPath) const;
    bool Exists(const std::string& systemPath) const;

private:
    std::string root_;
};

// Path of a program built by the project: the daemon, a tool or a test helper.
std::string BuiltProgram(const std::string& relativePath);
std::string ReadWholeFile(const std::string& path);
void MakeDirs(const std::string& path);

} // namespace Test
} // namespace Stavik

#endif
