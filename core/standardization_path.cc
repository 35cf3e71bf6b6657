#include "core/standardization_path.h"

#include <cstdlib>
#include <cstring>

namespace Stavik {
namespace {

const size_t PATH_BUF_SIZE = 4097;

} // namespace

bool StandardizationPath(const std::string& in, std::string& out)
{
    if (in.size() >= PATH_BUF_SIZE) {
        return false;
    }
    char resolved[PATH_BUF_SIZE];
    memset(resolved, 0, sizeof(resolved));
    if (realpath(in.c_str(), resolved) == nullptr) {
        return false;
    }
    out = resolved;
    return true;
}

} // namespace Stavik
