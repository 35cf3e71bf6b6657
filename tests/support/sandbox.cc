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
        std::string prefix = path.substr(0, slash);
        mkdir(prefix.c_str(), 0755);
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
    MakeDirs(root_ + "/dev");
    MakeDirs(root_ + "/etc");
    MakeDirs(root_ + "/sys/fs/cgroup");
    MakeDirs(TubixDir());
    // Services of every user make their endpoints here, as in /run/tubix.
    chmod(TubixDir().c_str(), 01777);
}

Sandbox::~Sandbox()
{
    if (getenv("STAVIK_KEEP_SANDBOX") == nullptr && !root_.empty()) {
        std::string command = "rm -rf '" + root_ + "'";
        int ignored = system(command.c_str());
        (void)ignored;
    }
}

std::string Sandbox::WriteFile(const std::string& systemPath, const std::string& content) const
{
    std::string path = Path(systemPath);
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::trunc);
    out << content;
    out.close();
    chmod(path.c_str(), 0644);
    return path;
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
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace Test
} // namespace Stavik
