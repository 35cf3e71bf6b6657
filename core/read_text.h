#ifndef STAVIK_CORE_READ_TEXT_H
#define STAVIK_CORE_READ_TEXT_H

#include <string>

namespace Stavik {

// Reads a whole small file (close-on-exec, as every descriptor of the
// daemon); false when it can't be opened or read.
bool ReadText(const std::string& path, std::string& text);

} // namespace Stavik

#endif
