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

    bool InitYamlNode(const std::string& path);
    bool GetSubKvs(const std::string& key, KvsTypeYaml& out) const;
    bool GetArray(std::vector<KvsTypeYaml>& out) const;
    std::string GetKey() const;
    uint64_t GetUint64() const;
    std::vector<std::string> GetSequenceString() const;
    bool GetBool() const;
    std::string GetString() const;

private:
    std::shared_ptr<KvsNode> node_;
    std::string key_;
};

#endif
