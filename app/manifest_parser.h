#ifndef STAVIK_APP_MANIFEST_PARSER_H
#define STAVIK_APP_MANIFEST_PARSER_H

#include "parse_and_depend.h"

namespace Stavik {

// The daemon's one manifest reader: the base start, the start-up files and the
// dynamic parameters all go through this instance.
ParseAndDepend& ManifestParser();

} // namespace Stavik

#endif
