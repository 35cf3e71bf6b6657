#ifndef STAVIK_PLATFORM_HOST_MANIFEST_SCALAR_VALUE_H
#define STAVIK_PLATFORM_HOST_MANIFEST_SCALAR_VALUE_H

#include <cstdint>
#include <string>

// Conversions of YAML scalars. Numbers are decimal only, so that a leading
// zero never turns a value into octal; a value out of range is refused.
bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value);
bool ParseSigned(const std::string& text, int64_t min, int64_t max, int64_t& value);
// true/false, also yes/no, on/off, y/n, in YAML's usual spellings.
bool ParseBool(const std::string& text, bool& value);

#endif
