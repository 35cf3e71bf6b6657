#include "manifest/scalar_value.h"

#include <yaml-cpp/node/convert.h>
#include <yaml-cpp/node/node.h>

namespace {

bool ParseMagnitude(const std::string& digits, uint64_t max, uint64_t& value)
{
    if (digits.empty()) {
        return false;
    }
    uint64_t result = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return false;
        }
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (result > (max - digit) / 10) {
            return false;
        }
        result = result * 10 + digit;
    }
    value = result;
    return true;
}

} // namespace

bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value)
{
    size_t start = (!text.empty() && text[0] == '+') ? 1 : 0;
    return ParseMagnitude(text.substr(start), max, value);
}

bool ParseSigned(const std::string& text, int64_t min, int64_t max, int64_t& value)
{
    bool negative = !text.empty() && text[0] == '-';
    size_t start = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    // The magnitude of min is computed in unsigned arithmetic, as -INT64_MIN does not fit.
    uint64_t limit = negative ? static_cast<uint64_t>(-(min + 1)) + 1 : static_cast<uint64_t>(max);
    uint64_t magnitude = 0;
    if (!ParseMagnitude(text.substr(start), limit, magnitude)) {
        return false;
    }
    value = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

bool ParseBool(const std::string& text, bool& value)
{
    return YAML::convert<bool>::decode(YAML::Node(text), value);
}
