#include "app/manifest_parser.h"

namespace Stavik {

ParseAndDepend& ManifestParser()
{
    static ParseAndDepend parser;
    return parser;
}

} // namespace Stavik
