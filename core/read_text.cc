#include "core/read_text.h"

#include <cstdio>

namespace Stavik {

bool ReadText(const std::string& path, std::string& text)
{
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return false;
    }
    text.clear();
    char buffer[4096];
    size_t count = 0;
    while ((count = fread(buffer, 1, sizeof(buffer), file)) > 0) {
        text.append(buffer, count);
    }
    const bool isRead = ferror(file) == 0;
    fclose(file);
    return isRead;
}

} // namespace Stavik
