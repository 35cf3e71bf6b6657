#include <fnmatch.h>
#include <syslog.h>

#include "core/log.h"
#include "parse_and_depend.h"

namespace {

const char DYNAMIC_OPEN[] = "${";
const char DYNAMIC_CLOSE = '}';
// Every byte that begins a shell token: | || ; > >> < ` & && ( ) $.
const char SHELL_TOKEN_BYTES[] = "|;<>`&()$";

bool HasControlCharacter(const std::string& value)
{
    for (char c : value) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            return true;
        }
    }
    return false;
}

bool HasParentComponent(const std::string& value)
{
    size_t start = 0;
    for (;;) {
        size_t end = value.find('/', start);
        if (value.compare(start, end == std::string::npos ? std::string::npos : end - start, "..") == 0) {
            return true;
        }
        if (end == std::string::npos) {
            return false;
        }
        start = end + 1;
    }
}

// A value from a request ends up in a path, an argument or the environment of
// a child, so anything that could escape its place is refused whatever the glob says.
const char* RefusalReason(const std::string& value)
{
    if (HasControlCharacter(value)) {
        return "a control character";
    }
    if (HasParentComponent(value)) {
        return "a '..' path component";
    }
    if (value.find_first_of(SHELL_TOKEN_BYTES) != std::string::npos) {
        return "a shell token";
    }
    return nullptr;
}

} // namespace

bool ParseAndDepend::IsDynamicPara(const std::string& value) const
{
    const size_t openLength = sizeof(DYNAMIC_OPEN) - 1;
    return value.size() > openLength + 1 && value.compare(0, openLength, DYNAMIC_OPEN) == 0 &&
           value.back() == DYNAMIC_CLOSE;
}

bool ParseAndDepend::IsDynamicParaMatch(const std::string& pattern, const std::string& value) const
{
    if (!IsDynamicPara(pattern)) {
        return false;
    }
    const char* reason = RefusalReason(value);
    if (reason != nullptr) {
        Stavik::Syslog(LOG_DEBUG, "Stavik: dynamic value refused for pattern %s, it holds %s", pattern.c_str(),
                       reason);
        return false;
    }
    const size_t openLength = sizeof(DYNAMIC_OPEN) - 1;
    std::string glob = pattern.substr(openLength, pattern.size() - openLength - 1);
    return fnmatch(glob.c_str(), value.c_str(), FNM_PATHNAME) == 0;
}
