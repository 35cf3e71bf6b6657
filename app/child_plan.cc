#include "app/child_plan.h"

namespace Stavik {
namespace App {

bool CStringList::SetEnv(const std::string& key, const std::string& value)
{
    if (key.empty() || key.find('=') != std::string::npos) {
        return false;
    }
    const std::string prefix = key + "=";
    for (std::string& text : texts_) {
        if (text.compare(0, prefix.size(), prefix) == 0) {
            text = prefix + value;
            return true;
        }
    }
    texts_.push_back(prefix + value);
    return true;
}

void CStringList::Seal()
{
    pointers_.clear();
    pointers_.reserve(texts_.size() + 1);
    for (std::string& text : texts_) {
        pointers_.push_back(&text[0]);
    }
    pointers_.push_back(nullptr);
}

} // namespace App
} // namespace Stavik
