#ifndef STAVIK_RESOURCE_SHAREPOOL_H
#define STAVIK_RESOURCE_SHAREPOOL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "application_manifest.h"
#include "kvs_type_yaml.h"

namespace Stavik {

const std::string SHAREPOOL_CFG_DIR = "/etc/sharepool";
const std::string DEFAULT_MEM_GROUP = "DEFAULT_MEM_GROUP";
const std::string SHAREGROUP_PRECONFIG_ENV = "SHAREGROUP_PRECONFIG";
const std::string SHAREPOOL_GROUP_NAME_ENV = "SHAREPOOL_GROUP_NAME";
constexpr uint32_t GROUP_CFG_MAGIC = 0x5A5A5B5B;

struct SharepoolGroupCfg {
    std::string groupName;
    uint64_t memSize = 0; // kilobytes
};

// The permission word of halGrpAddProc for a permission text on a group:
// only the default group lets an administrator allocate.
uint32_t SharepoolPermissionWord(const std::string& permission, const std::string& groupName);

// Whether a child is joined to sharepool groups at its start: the data-plane
// owner's applications, and the two services that share memory with them. A
// base service passes its own name as the owner.
bool IsSharepoolApp(const std::string& ownerName, const std::string& appName);

// The shared-memory groups of the board, declared in the YAML files of
// /etc/sharepool: loaded and created once at boot, before any child starts,
// and only read afterwards, without a lock.
class SharepoolCfg {
public:
    static SharepoolCfg& Instance();
    // Tests build their own; the daemon uses Instance().
    SharepoolCfg() = default;

    void LoadSharepool();
    void LoadSharepoolCfg();
    void FinishSharepoolCfg();
    void CreateSharepoolGroups() const;

    bool CheckSharepoolGroupCfg(const SharepoolGroupsInfo& info, std::string& errInfo) const;
    std::vector<SharepoolGroupsInfo> GetAppGroups(const std::string& appName,
                                                  const std::vector<SharepoolGroupsInfo>& manifestGroups) const;
    void AddSharepoolGroup(const std::string& appName, uint32_t pid,
                           const std::vector<SharepoolGroupsInfo>& groups) const;
    // setEnv is the environment the child will get (setenv with overwrite).
    using EnvSetter = std::function<bool(const std::string& key, const std::string& value)>;
    void SetSharepoolEnv(const std::string& appName, const std::vector<SharepoolGroupsInfo>& manifestGroups,
                         const EnvSetter& setEnv, std::string& errInfo) const;

    const std::vector<SharepoolGroupCfg>& Groups() const { return groups_; }
    const std::vector<std::string>& AdminProLists() const { return adminProLists_; }
    const std::vector<std::string>& WhiteLists() const { return whiteLists_; }
    const std::vector<std::string>& GroupNames() const { return groupNames_; }

private:
    void LoadCfgFile(const std::string& path);
    void LoadSharepoolGroupCfg(const KvsTypeYaml& root, const std::string& path);
    void LoadAdminProLists(const KvsTypeYaml& root, const std::string& path);
    void LoadWhiteLists(const KvsTypeYaml& root, const std::string& path);
    bool IsAdmin(const std::string& name) const;
    bool HasGroup(const std::string& groupName) const;

    std::vector<SharepoolGroupCfg> groups_;
    std::vector<std::string> adminProLists_;
    std::vector<std::string> whiteLists_;
    std::vector<std::string> groupNames_;
};

} // namespace Stavik

#endif
