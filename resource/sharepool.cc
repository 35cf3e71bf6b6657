#include "resource/sharepool.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>

#include "core/constants.h"
#include "core/sk_log.h"
#include "core/standardization_path.h"
#include "core/sys_root.h"
#include "hal.h"

namespace Stavik {
namespace {

const char GROUPS_KEY[] = "sharepool_groups";
const char ADMIN_KEY[] = "admin_pro_lists";
const char WHITE_LIST_KEY[] = "add_all_groups_white_lists";
const char MEM_SIZE_KEY[] = "mem_size";
const char GROUP_SEPARATOR = '#';
const std::string PERM_ADMIN = "admin";
const std::string PERM_ALLOC = "alloc";
const std::string PERM_RW = "rw";
const std::string PERM_RO = "ro";

bool Holds(const std::vector<std::string>& list, const std::string& name)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

void AppendNew(const std::vector<std::string>& names, std::vector<std::string>& list)
{
    for (const std::string& name : names) {
        if (!Holds(list, name)) {
            list.push_back(name);
        }
    }
}

uint64_t GetSharepoolGroupMemSize(const KvsTypeYaml& item)
{
    KvsTypeYaml size;
    if (!item.GetSubKvs(MEM_SIZE_KEY, size)) {
        SK_LOG(LOG_WARNING, "GetSharepoolGroupMemSize is null !");
        return 0;
    }
    return size.GetUint64();
}

} // namespace

uint32_t SharepoolPermissionWord(const std::string& permission, const std::string& groupName)
{
    if (permission == PERM_ADMIN) {
        uint32_t admin = HAL_GRP_PERM_ADMIN | HAL_GRP_PERM_READ | HAL_GRP_PERM_WRITE;
        return groupName == DEFAULT_MEM_GROUP ? admin | HAL_GRP_PERM_ALLOC : admin;
    }
    if (permission == PERM_ALLOC) {
        return HAL_GRP_PERM_READ | HAL_GRP_PERM_WRITE | HAL_GRP_PERM_ALLOC;
    }
    if (permission == PERM_RW) {
        return HAL_GRP_PERM_READ | HAL_GRP_PERM_WRITE;
    }
    return permission == PERM_RO ? HAL_GRP_PERM_READ : 0;
}

bool IsSharepoolApp(const std::string& ownerName, const std::string& appName)
{
    return ownerName == BRELLAN_NAME || appName == BRELLAN_NAME || appName == EM_TAG;
}

SharepoolCfg& SharepoolCfg::Instance()
{
    static SharepoolCfg cfg;
    return cfg;
}

void SharepoolCfg::LoadSharepool()
{
    LoadSharepoolCfg();
    FinishSharepoolCfg();
    CreateSharepoolGroups();
}

void SharepoolCfg::LoadSharepoolCfg()
{
    const std::string dirPath = SysPath(SHAREPOOL_CFG_DIR);
    DIR* dir = opendir(dirPath.c_str());
    if (dir == nullptr) {
        SK_LOG(LOG_ERR, "LoadSharepoolCfg failed: errno=%d", errno);
        return;
    }
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_type == DT_REG) {
            LoadCfgFile(dirPath + "/" + entry->d_name);
        }
    }
    closedir(dir);
}

void SharepoolCfg::LoadCfgFile(const std::string& path)
{
    std::string realPath;
    if (!StandardizationPath(path, realPath)) {
        SK_LOG(LOG_ERR, "LoadCfgFile=%s StandardizationPath failed", path.c_str());
        return;
    }
    KvsTypeYaml root;
    if (!root.InitYamlNode(realPath)) {
        SK_LOG(LOG_ERR, "sharepool LoadCfgFile file (%s) failed, init yaml node failed", realPath.c_str());
        return;
    }
    LoadSharepoolGroupCfg(root, realPath);
    LoadAdminProLists(root, realPath);
    LoadWhiteLists(root, realPath);
}

void SharepoolCfg::LoadSharepoolGroupCfg(const KvsTypeYaml& root, const std::string& path)
{
    KvsTypeYaml groups;
    if (!root.GetSubKvs(GROUPS_KEY, groups)) {
        SK_LOG(LOG_WARNING, "LoadSharepoolGroupCfg not exist %s key", GROUPS_KEY);
        return;
    }
    std::vector<KvsTypeYaml> items;
    if (!groups.GetArray(items)) {
        SK_LOG(LOG_WARNING, "%s invalid file!", path.c_str());
        items.clear();
    }
    std::vector<SharepoolGroupCfg> loaded;
    for (const KvsTypeYaml& item : items) {
        SharepoolGroupCfg group{item.GetKey(), GetSharepoolGroupMemSize(item)};
        SK_LOG(LOG_INFO, "LoadSharepoolGroupCfg groupName=%s, memSize=%lu KB", group.groupName.c_str(),
               static_cast<unsigned long>(group.memSize));
        loaded.push_back(group);
    }
    // The first file read wins: a later size of a known group is dropped.
    for (const SharepoolGroupCfg& group : loaded) {
        if (!HasGroup(group.groupName)) {
            groups_.push_back(group);
        }
    }
}

void SharepoolCfg::LoadAdminProLists(const KvsTypeYaml& root, const std::string& path)
{
    KvsTypeYaml list;
    if (!root.GetSubKvs(ADMIN_KEY, list)) {
        SK_LOG(LOG_WARNING, "cfg=%s LoadAdminProLists not exist %s key", path.c_str(), ADMIN_KEY);
        return;
    }
    AppendNew(list.GetSequenceString(), adminProLists_);
}

void SharepoolCfg::LoadWhiteLists(const KvsTypeYaml& root, const std::string& path)
{
    KvsTypeYaml list;
    if (!root.GetSubKvs(WHITE_LIST_KEY, list)) {
        SK_LOG(LOG_WARNING, "cfg=%s not exist %s key", path.c_str(), WHITE_LIST_KEY);
        return;
    }
    AppendNew(list.GetSequenceString(), whiteLists_);
}

// The default group goes last without a test, so a file that declares it
// leaves it in the list twice, and the second creation reports it as existing.
void SharepoolCfg::FinishSharepoolCfg()
{
    groups_.push_back(SharepoolGroupCfg{DEFAULT_MEM_GROUP, 0});
    for (const std::string& admin : adminProLists_) {
        SK_LOG(LOG_INFO, "sharepoolCfg app %s is admin", admin.c_str());
    }
    for (const SharepoolGroupCfg& group : groups_) {
        SK_LOG(LOG_INFO, "sharepoolCfg has %s sharepool group", group.groupName.c_str());
        groupNames_.push_back(group.groupName);
    }
    for (const std::string& name : whiteLists_) {
        SK_LOG(LOG_INFO, "sharepoolCfg app=%s is in while lists", name.c_str());
    }
}

void SharepoolCfg::CreateSharepoolGroups() const
{
    GroupCfg cfg{};
    for (const SharepoolGroupCfg& group : groups_) {
        cfg.maxMemSize = group.memSize;
        cfg.cfgMagic = GROUP_CFG_MAGIC;
        int32_t result = halGrpCreate(group.groupName.c_str(), cfg);
        if (result == 0) {
            SK_LOG(LOG_INFO, "CreateSharepoolGroup group=%s success", group.groupName.c_str());
        } else if (result == HAL_GRP_EXIST) {
            SK_LOG(LOG_WARNING, "CreateSharepoolGroup failed cur group=%s is existed", group.groupName.c_str());
        } else {
            SK_LOG(LOG_ERR, "CreateSharepoolGroup group=%s failed, res=%d", group.groupName.c_str(), result);
        }
    }
}

// An administrator list entry that equals the group's name lets any
// permission text pass; the platform's configurations rely on that.
bool SharepoolCfg::CheckSharepoolGroupCfg(const SharepoolGroupsInfo& info, std::string& errInfo) const
{
    if (!HasGroup(info.groupName)) {
        errInfo += "CheckSharepoolGroupCfg failed groupName=" + info.groupName + " is not legal;";
        return false;
    }
    if (info.permission.empty() || IsAdmin(info.groupName)) {
        return true;
    }
    if (info.permission == PERM_ADMIN || info.permission == PERM_ALLOC || info.permission == PERM_RW ||
        info.permission == PERM_RO) {
        return true;
    }
    errInfo += "CheckSharepoolGroupCfg failed permission=" + info.permission + " is not legal;";
    return false;
}

std::vector<SharepoolGroupsInfo> SharepoolCfg::GetAppGroups(
    const std::string& appName, const std::vector<SharepoolGroupsInfo>& manifestGroups) const
{
    std::vector<SharepoolGroupsInfo> groups;
    if (IsAdmin(appName)) {
        for (const SharepoolGroupCfg& group : groups_) {
            groups.push_back(SharepoolGroupsInfo{group.groupName, PERM_ADMIN});
        }
        return groups;
    }
    if (!manifestGroups.empty()) {
        return manifestGroups;
    }
    groups.push_back(SharepoolGroupsInfo{DEFAULT_MEM_GROUP, PERM_ALLOC});
    return groups;
}

void SharepoolCfg::AddSharepoolGroup(const std::string& appName, uint32_t pid,
                                     const std::vector<SharepoolGroupsInfo>& groups) const
{
    const int shownPid = static_cast<int>(pid);
    for (const SharepoolGroupsInfo& group : groups) {
        std::string errInfo;
        if (!CheckSharepoolGroupCfg(group, errInfo)) {
            SK_LOG(LOG_WARNING,
                   "AddSharepoolGroup CheckGroupCfg fail: pid=%d, appName=%s, group=%s, permission=%s, err=%s",
                   shownPid, appName.c_str(), group.groupName.c_str(), group.permission.c_str(), errInfo.c_str());
            continue;
        }
        uint32_t word = SharepoolPermissionWord(group.permission, group.groupName);
        int32_t result = halGrpAddProc(group.groupName.c_str(), static_cast<int32_t>(pid), word);
        if (result == 0) {
            SK_LOG(LOG_INFO, "AddSharepoolGroup: success, pid=%d, appName=%s, groupName=%s, permission=%s", shownPid,
                   appName.c_str(), group.groupName.c_str(), group.permission.c_str());
        } else {
            SK_LOG(LOG_WARNING, "AddSharepoolGroup failed ret=%d, pid=%d, appName=%s, groupName=%s, permission=%s",
                   result, shownPid, appName.c_str(), group.groupName.c_str(), group.permission.c_str());
        }
    }
}

void SharepoolCfg::SetSharepoolEnv(const std::string& appName,
                                   const std::vector<SharepoolGroupsInfo>& manifestGroups,
                                   const EnvSetter& setEnv, std::string& errInfo) const
{
    std::vector<SharepoolGroupsInfo> groups = GetAppGroups(appName, manifestGroups);
    if (groups.empty()) {
        return;
    }
    if (!setEnv(SHAREGROUP_PRECONFIG_ENV, "1")) {
        errInfo += "app=" + appName + " set SHAREGROUP_PRECONFIG failed errno=" + std::to_string(EINVAL) + ";";
        return;
    }
    std::string value;
    for (size_t i = 0; i < groups.size(); ++i) {
        if (CheckSharepoolGroupCfg(groups[i], errInfo)) {
            value += groups[i].groupName;
            if (i + 1 < groups.size()) {
                value += GROUP_SEPARATOR;
            }
        }
    }
    // A failing last entry leaves the separator of the one before it.
    if (!value.empty() && value.back() == GROUP_SEPARATOR) {
        value.pop_back();
    }
    if (!setEnv(SHAREPOOL_GROUP_NAME_ENV, value)) {
        errInfo += "app=" + appName + " set SHAREPOOL_GROUP_NAME failed errno=" + std::to_string(EINVAL) + ";";
    }
}

bool SharepoolCfg::IsAdmin(const std::string& name) const
{
    return Holds(adminProLists_, name);
}

bool SharepoolCfg::HasGroup(const std::string& groupName) const
{
    return std::any_of(groups_.begin(), groups_.end(),
                       [&groupName](const SharepoolGroupCfg& group) { return group.groupName == groupName; });
}

} // namespace Stavik
