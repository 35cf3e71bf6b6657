#ifndef STAVIK_PLATFORM_HOST_MANIFEST_MANIFEST_READER_H
#define STAVIK_PLATFORM_HOST_MANIFEST_MANIFEST_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "application_manifest.h"

// Results of reading a manifest file.
enum ManifestResult : int32_t {
    MANIFEST_OK = 0,
    MANIFEST_BAD_TYPE = 1,
    MANIFEST_UNREADABLE = 2,
    MANIFEST_SYNTAX_ERROR = 3,
    MANIFEST_BAD_LAYOUT = 4,
    MANIFEST_BAD_VALUE = 5,
};

// Appends the selected entries of a manifest file to out, in file order.
// Reading stops at the first fault; the entries before it are appended, the
// faulty one and those after it are not.
ManifestResult ReadManifestFile(const std::string& path, const std::map<std::string, std::string>& matchArgs,
                                std::vector<ApplicationManifest>& out);

#endif
