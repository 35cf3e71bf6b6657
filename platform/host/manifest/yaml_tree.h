#ifndef STAVIK_PLATFORM_HOST_MANIFEST_YAML_TREE_H
#define STAVIK_PLATFORM_HOST_MANIFEST_YAML_TREE_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

// One node of a YAML document as this library keeps it: with its line, for
// the log, and with a mark telling whether the parser saw its end. Nodes are
// attached as they open, so a syntax error still leaves what came before it.
struct TreeNode {
    enum class Kind { NONE, SCALAR, SEQUENCE, MAP };

    Kind kind = Kind::NONE;
    std::string text;
    int line = 0;
    bool complete = false;
    std::vector<std::shared_ptr<TreeNode>> items;
    std::vector<std::pair<std::shared_ptr<TreeNode>, std::shared_ptr<TreeNode>>> pairs;

    // Value of a scalar key of a map, the last one when the key is repeated;
    // null when absent or when this node is no map.
    const TreeNode* Find(const std::string& key) const;
    // "a map", "a sequence", "nothing" or the scalar in quotes, for log lines.
    std::string Describe() const;
};

enum class YamlLoad { OK, UNREADABLE, SYNTAX_ERROR };

// The first document of a file. After a syntax error root holds what was read
// up to the fault, with complete cleared on every node left open.
struct YamlDocument {
    std::shared_ptr<const TreeNode> root;
    int faultLine = 0;
    std::string fault;
};

YamlLoad LoadYamlText(const std::string& text, YamlDocument& doc);
YamlLoad LoadYamlFile(const std::string& path, YamlDocument& doc);

#endif
