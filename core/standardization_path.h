#ifndef STAVIK_CORE_STANDARDIZATION_PATH_H
#define STAVIK_CORE_STANDARDIZATION_PATH_H

#include <string>

namespace Stavik {

// Canonical absolute form of a path of at most 4096 characters; false, with out
// untouched, when the path is longer or can't be resolved.
bool StandardizationPath(const std::string& in, std::string& out);

} // namespace Stavik

#endif
