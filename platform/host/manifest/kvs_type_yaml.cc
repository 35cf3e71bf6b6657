#include "kvs_type_yaml.h"

#include <syslog.h>

#include <limits>

#include "core/log.h"
#include "manifest/scalar_value.h"
#include "manifest/yaml_tree.h"

// The view keeps the tree alive; a child view shares it, so copies are cheap.
struct KvsNode {
    std::shared_ptr<const TreeNode> tree;
    const TreeNode* value = nullptr;
};

namespace {

const TreeNode* ValueOf(const std::shared_ptr<KvsNode>& node)
{
    return node ? node->value : nullptr;
}

bool IsKind(const TreeNode* value, TreeNode::Kind kind)
{
    return value != nullptr && value->kind == kind;
}

std::shared_ptr<KvsNode> ChildNode(const std::shared_ptr<KvsNode>& parent, const TreeNode* value)
{
    auto child = std::make_shared<KvsNode>();
    child->tree = parent->tree;
    child->value = value;
    return child;
}

} // namespace

KvsTypeYaml::KvsTypeYaml() : node_(std::make_shared<KvsNode>()) {}

KvsTypeYaml::~KvsTypeYaml() = default;

KvsTypeYaml::KvsTypeYaml(const KvsTypeYaml& other) = default;

KvsTypeYaml& KvsTypeYaml::operator=(const KvsTypeYaml& other) = default;

bool KvsTypeYaml::InitYamlNode(const std::string& path)
{
    YamlDocument doc;
    YamlLoad load = LoadYamlFile(path, doc);
    node_ = std::make_shared<KvsNode>();
    key_.clear();
    if (load != YamlLoad::OK) {
        // The caller reports the failure; this line only adds the detail.
        Stavik::Syslog(LOG_DEBUG, "Stavik: yaml %s line %d: %s", path.c_str(), doc.faultLine, doc.fault.c_str());
        return false;
    }
    node_->tree = doc.root;
    node_->value = doc.root.get();
    return true;
}

bool KvsTypeYaml::GetSubKvs(const std::string& key, KvsTypeYaml& out) const
{
    const TreeNode* value = ValueOf(node_);
    const TreeNode* found = IsKind(value, TreeNode::Kind::MAP) ? value->Find(key) : nullptr;
    if (found == nullptr) {
        return false;
    }
    out.node_ = ChildNode(node_, found);
    out.key_ = key;
    return true;
}

// A map gives its values, each with its key. A sequence gives its items; an
// item that is a map of one key stands for that key and its value, which is
// how a list of named groups is written, and a plain scalar item is its own key.
bool KvsTypeYaml::GetArray(std::vector<KvsTypeYaml>& out) const
{
    const TreeNode* value = ValueOf(node_);
    out.clear();
    auto append = [this, &out](const TreeNode* item, const std::string& key) {
        KvsTypeYaml view;
        view.node_ = ChildNode(node_, item);
        view.key_ = key;
        out.push_back(view);
    };
    if (IsKind(value, TreeNode::Kind::MAP)) {
        for (const auto& pair : value->pairs) {
            append(pair.second.get(), pair.first->text);
        }
        return true;
    }
    if (!IsKind(value, TreeNode::Kind::SEQUENCE)) {
        return false;
    }
    for (const auto& item : value->items) {
        if (item->kind == TreeNode::Kind::MAP && item->pairs.size() == 1) {
            append(item->pairs.front().second.get(), item->pairs.front().first->text);
        } else {
            append(item.get(), item->kind == TreeNode::Kind::SCALAR ? item->text : std::string());
        }
    }
    return true;
}

std::string KvsTypeYaml::GetKey() const
{
    return key_;
}

uint64_t KvsTypeYaml::GetUint64() const
{
    const TreeNode* value = ValueOf(node_);
    uint64_t result = 0;
    if (!IsKind(value, TreeNode::Kind::SCALAR) ||
        !ParseUnsigned(value->text, std::numeric_limits<uint64_t>::max(), result)) {
        return 0;
    }
    return result;
}

std::vector<std::string> KvsTypeYaml::GetSequenceString() const
{
    const TreeNode* value = ValueOf(node_);
    std::vector<std::string> result;
    if (!IsKind(value, TreeNode::Kind::SEQUENCE)) {
        return result;
    }
    for (const auto& item : value->items) {
        if (item->kind == TreeNode::Kind::SCALAR) {
            result.push_back(item->text);
        }
    }
    return result;
}

bool KvsTypeYaml::GetBool() const
{
    const TreeNode* value = ValueOf(node_);
    bool result = false;
    return IsKind(value, TreeNode::Kind::SCALAR) && ParseBool(value->text, result) && result;
}

std::string KvsTypeYaml::GetString() const
{
    const TreeNode* value = ValueOf(node_);
    return IsKind(value, TreeNode::Kind::SCALAR) ? value->text : std::string();
}
