#include "tests/support/sandbox.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Stavik {
namespace Test {

void MakeDirs(const std::string& path)
{
    for (size_t slash = path.find('/', 1); ; slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
        if (slash == std::string::npos) {
            break;
        }
    }
}

Sandbox::Sandbox()
{
    char pattern[] = "/tmp/stavik-test.XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    root_ = pattern;
    // Children run under other users in some tests: they must reach files in here.
    chmod(root_.c_str(), 0755);
    for (const char* dir : {"/dev", "/etc", "/out", "/sys/fs/cgroup"}) {
        MakeDirs(root_ + dir);
    }
    chmod(Path("/out").c_str(), 0777);
    MakeDirs(TubixDir());
    // Services of every user make their endpoints here, as in /run/tubix.
    chmod(TubixDir().c_str(), 01777);
}

Sandbox::~Sandbox()
{
    if (getenv("STAVIK_KEEP_SANDBOX") == nullptr) {
        int ignored = system(("rm -rf '" + root_ + "'").c_str());
        (void)ignored;
    }
}

std::string Sandbox::WriteFile(const std::string& systemPath, const std::string& content, mode_t mode) const
{
    std::string path = Path(systemPath);
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream(path, std::ios::trunc | std::ios::binary) << content;
    chmod(path.c_str(), mode);
    return path;
}

std::string Sandbox::CopyProgram(const std::string& program, const std::string& systemPath, mode_t mode) const
{
    return WriteFile(systemPath, ReadWholeFile(program), mode);
}

std::string Sandbox::ReadFile(const std::string& systemPath) const
{
    return ReadWholeFile(Path(systemPath));
}

bool Sandbox::Exists(const std::string& systemPath) const
{
    return access(Path(systemPath).c_str(), F_OK) == 0;
}

std::string BuiltProgram(const std::string& relativePath)
{
    return std::string(STAVIK_BINARY_DIR) + "/" + relativePath;
}

std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace Test
} // namespace Stavik
