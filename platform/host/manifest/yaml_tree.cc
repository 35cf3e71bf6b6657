#include "manifest/yaml_tree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <map>
#include <sstream>

#include "manifest/file_text.h"

namespace {

// Far beyond any manifest, and far below the depth at which the parser gives
// up on its own with no useful text after a deep recursion.
const size_t MAX_NESTING = 100;

// Builds the tree from the parser's events. Every container is attached to
// its parent when it opens, so a syntax error leaves a tree of what came
// before it, with the open nodes marked incomplete.
class TreeBuilder : public YAML::EventHandler {
public:
    std::shared_ptr<TreeNode> Root() const { return root_; }

    void OnDocumentStart(const YAML::Mark&) override {}
    void OnDocumentEnd() override {}

    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override
    {
        Attach(NewNode(mark, anchor, TreeNode::Kind::NONE, std::string(), true));
    }

    void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                  const std::string& value) override
    {
        Attach(NewNode(mark, anchor, TreeNode::Kind::SCALAR, value, true));
    }

    void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override
    {
        auto found = anchors_.find(anchor);
        // An alias inside the node it names would make the tree endless.
        if (found == anchors_.end() || !found->second->complete) {
            throw YAML::ParserException(mark, "alias refers to a node that encloses it");
        }
        Attach(found->second);
    }

    void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override
    {
        Open(mark, anchor, TreeNode::Kind::SEQUENCE);
    }

    void OnSequenceEnd() override { Close(); }

    void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override
    {
        Open(mark, anchor, TreeNode::Kind::MAP);
    }

    void OnMapEnd() override { Close(); }

private:
    struct OpenNode {
        std::shared_ptr<TreeNode> node;
        std::shared_ptr<TreeNode> pendingKey;
    };

    std::shared_ptr<TreeNode> NewNode(const YAML::Mark& mark, YAML::anchor_t anchor, TreeNode::Kind kind,
                                      const std::string& text, bool complete)
    {
        auto node = std::make_shared<TreeNode>();
        node->kind = kind;
        node->text = text;
        node->line = mark.line + 1;
        node->complete = complete;
        if (anchor != YAML::NullAnchor) {
            anchors_[anchor] = node;
        }
        return node;
    }

    void Open(const YAML::Mark& mark, YAML::anchor_t anchor, TreeNode::Kind kind)
    {
        if (open_.size() >= MAX_NESTING) {
            throw YAML::ParserException(mark, "nesting deeper than " + std::to_string(MAX_NESTING) + " levels");
        }
        std::shared_ptr<TreeNode> node = NewNode(mark, anchor, kind, std::string(), false);
        Attach(node);
        open_.push_back(OpenNode{node, nullptr});
    }

    void Close()
    {
        if (!open_.empty()) {
            open_.back().node->complete = true;
            open_.pop_back();
        }
    }

    void Attach(const std::shared_ptr<TreeNode>& node)
    {
        if (open_.empty()) {
            if (!root_) {
                root_ = node;
            }
            return;
        }
        OpenNode& parent = open_.back();
        if (parent.node->kind == TreeNode::Kind::SEQUENCE) {
            parent.node->items.push_back(node);
        } else if (!parent.pendingKey) {
            parent.pendingKey = node;
        } else {
            // The parser marks an empty value at the next token; the key's line is the one a user looks for.
            if (node->kind == TreeNode::Kind::NONE) {
                node->line = parent.pendingKey->line;
            }
            parent.node->pairs.emplace_back(parent.pendingKey, node);
            parent.pendingKey.reset();
        }
    }

    std::shared_ptr<TreeNode> root_;
    std::vector<OpenNode> open_;
    std::map<YAML::anchor_t, std::shared_ptr<TreeNode>> anchors_;
};

} // namespace

YamlLoad LoadYamlText(const std::string& text, YamlDocument& doc)
{
    std::istringstream in(text);
    TreeBuilder builder;
    YamlLoad result = YamlLoad::OK;
    try {
        YAML::Parser parser(in);
        parser.HandleNextDocument(builder);
    } catch (const YAML::Exception& error) {
        doc.faultLine = error.mark.is_null() ? 0 : error.mark.line + 1;
        doc.fault = error.msg;
        result = YamlLoad::SYNTAX_ERROR;
    } catch (const std::exception& error) {
        doc.faultLine = 0;
        doc.fault = error.what();
        result = YamlLoad::SYNTAX_ERROR;
    }
    doc.root = builder.Root();
    return result;
}

YamlLoad LoadYamlFile(const std::string& path, YamlDocument& doc)
{
    std::string text;
    if (!ReadRegularFile(path, text, doc.fault)) {
        doc.root.reset();
        return YamlLoad::UNREADABLE;
    }
    return LoadYamlText(text, doc);
}
