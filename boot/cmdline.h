#ifndef STAVIK_BOOT_CMDLINE_H
#define STAVIK_BOOT_CMDLINE_H

#include <set>
#include <string>

namespace Stavik {

// The tokens of `key` on one kernel command line: the first place where the
// text of key occurs counts, even inside another word; the character behind
// it is skipped unseen, the value runs to the next blank and is split at
// separator, empty tokens dropped. A key that ends the line counts as absent.
std::set<std::string> ParseBootArgs(std::string line, const std::string& key, const std::string& separator);

} // namespace Stavik

#endif
