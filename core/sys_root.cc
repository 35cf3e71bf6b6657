#include "core/sys_root.h"

#include <cstdlib>

namespace Stavik {

std::string SysPath(const std::string& path)
{
    const char* root = getenv("STAVIK_SYSROOT");
    if (root == nullptr || root[0] == '\0') {
        return path;
    }
    std::string resolved(root);
    if (!resolved.empty() && resolved.back() == '/' && !path.empty() && path.front() == '/') {
        resolved.pop_back();
    }
    return resolved + path;
}

} // namespace Stavik
