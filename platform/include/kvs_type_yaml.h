#ifndef STAVIK_PLATFORM_KVS_TYPE_YAML_H
#define STAVIK_PLATFORM_KVS_TYPE_YAML_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct KvsNode;

// Key-value view of a YAML configuration file; no YAML type leaks out of it.
class KvsTypeYaml {
public:
    KvsTypeYaml();
    ~KvsTypeYaml();
    KvsTypeYaml(const KvsTypeYaml& other);
    KvsTypeYaml& operator=(const KvsTypeYaml& other);

    // False for a missing or unreadable file or a YAML syntax error.
    bool InitYamlNode(const std::string& path);
    // False when this is no map or has no such key.
    bool GetSubKvs(const std::string& key, KvsTypeYaml& out) const;
    // The items of a sequence or the values of a map, each with its key (see
    // GetKey); false for anything else.
    bool GetArray(std::vector<KvsTypeYaml>& out) const;
    // The key under which this view was reached; empty for the root.
    std::string GetKey() const;
    // Values of the wrong type read as 0, empty, false or "".
    uint64_t GetUint64() const;
    std::vector<std::string> GetSequenceString() const;
    bool GetBool() const;
    std::string GetString() const;

private:
    std::shared_ptr<KvsNode> node_;
    std::string key_;
};

#endif
