#ifndef STAVIK_PLATFORM_HOST_MANIFEST_FILE_TEXT_H
#define STAVIK_PLATFORM_HOST_MANIFEST_FILE_TEXT_H

#include <string>

// Largest configuration file read; anything bigger is refused as a mistake.
constexpr size_t CONFIG_FILE_MAX_BYTES = 16u * 1024u * 1024u;

// Reads a whole regular file. On failure error says why, in words for a log line.
bool ReadRegularFile(const std::string& path, std::string& text, std::string& error);

#endif
