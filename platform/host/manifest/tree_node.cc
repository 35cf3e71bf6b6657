#include "manifest/yaml_tree.h"

const TreeNode* TreeNode::Find(const std::string& key) const
{
    const TreeNode* found = nullptr;
    for (const auto& pair : pairs) {
        if (pair.first->kind == Kind::SCALAR && pair.first->text == key) {
            found = pair.second.get();
        }
    }
    return found;
}

std::string TreeNode::Describe() const
{
    switch (kind) {
        case Kind::SCALAR:
            return "'" + text + "'";
        case Kind::SEQUENCE:
            return "a sequence";
        case Kind::MAP:
            return "a map";
        case Kind::NONE:
            break;
    }
    return "nothing";
}
