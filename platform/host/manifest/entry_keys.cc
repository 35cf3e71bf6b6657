#include "manifest/entry_keys.h"

namespace {

template <typename T>
KeyReader Into(T ManifestData::*member)
{
    return [member](const TreeNode& value, const FaultSpot& spot, EntryFields& fields) {
        return ReadValue(value, spot, fields.data.*member);
    };
}

bool ExpectMap(const TreeNode& value, const FaultSpot& spot, const std::string& expected)
{
    if (value.kind != TreeNode::Kind::MAP) {
        ReportBadValue(spot, value, expected);
        return false;
    }
    return true;
}

// Reads the keys of a small nested map through a table of its own; an empty
// value keeps the default and an unknown key is warned about, as at entry level.
template <typename Target>
bool ReadNestedMap(const TreeNode& value, const FaultSpot& spot,
                   const std::map<std::string, bool (*)(const TreeNode&, const FaultSpot&, Target&)>& readers,
                   Target& target)
{
    for (const auto& pair : value.pairs) {
        std::string key = KeyText(*pair.first);
        auto reader = readers.find(key);
        if (reader == readers.end()) {
            ReportWarning(spot, pair.first->line, "unknown key '" + key + "' ignored");
            continue;
        }
        if (pair.second->kind != TreeNode::Kind::NONE && !reader->second(*pair.second, spot.Below(key), target)) {
            return false;
        }
    }
    return true;
}

bool ReadHeartBeat(const TreeNode& value, const FaultSpot& spot, EntryFields& fields)
{
    using Reader = bool (*)(const TreeNode&, const FaultSpot&, ManifestData&);
    static const std::map<std::string, Reader> readers = {
        {"enable",
         [](const TreeNode& v, const FaultSpot& s, ManifestData& d) { return ReadValue(v, s, d.heartBeatSwitch); }},
        {"interval",
         [](const TreeNode& v, const FaultSpot& s, ManifestData& d) { return ReadValue(v, s, d.heartBeatInterval); }},
        {"count",
         [](const TreeNode& v, const FaultSpot& s, ManifestData& d) { return ReadValue(v, s, d.heartBeatCount); }},
    };
    return ExpectMap(value, spot, "a map with enable, interval and count") &&
           ReadNestedMap(value, spot, readers, fields.data);
}

bool ReadSharepoolGroup(const TreeNode& item, const FaultSpot& spot, SharepoolGroupsInfo& group)
{
    using Reader = bool (*)(const TreeNode&, const FaultSpot&, SharepoolGroupsInfo&);
    static const std::map<std::string, Reader> readers = {
        {"group",
         [](const TreeNode& v, const FaultSpot& s, SharepoolGroupsInfo& g) { return ReadValue(v, s, g.groupName); }},
        {"permission",
         [](const TreeNode& v, const FaultSpot& s, SharepoolGroupsInfo& g) { return ReadValue(v, s, g.permission); }},
    };
    if (!ExpectMap(item, spot, "a map with group and permission") || !ReadNestedMap(item, spot, readers, group)) {
        return false;
    }
    // A membership without a group names nothing to join.
    if (group.groupName.empty()) {
        ReportFault(spot.Below("group"), item.line, "each sharepool group needs a non-empty group name");
        return false;
    }
    return true;
}

bool ReadSharepoolGroups(const TreeNode& value, const FaultSpot& spot, EntryFields& fields)
{
    if (value.kind != TreeNode::Kind::SEQUENCE) {
        ReportBadValue(spot, value, "a list of {group, permission} maps");
        return false;
    }
    std::vector<SharepoolGroupsInfo> groups;
    for (const auto& item : value.items) {
        SharepoolGroupsInfo group;
        if (!ReadSharepoolGroup(*item, spot, group)) {
            return false;
        }
        groups.push_back(group);
    }
    fields.data.sharepoolGroups = std::move(groups);
    return true;
}

} // namespace

const std::map<std::string, KeyReader>& EntryKeyReaders()
{
    static const std::map<std::string, KeyReader> readers = {
        {"bin_path", Into(&ManifestData::binPath)},
        {"args", Into(&ManifestData::arguments)},
        {"env", Into(&ManifestData::env)},
        {"cfg_path", Into(&ManifestData::cfgPath)},
        {"uid", Into(&ManifestData::uid)},
        {"gid", Into(&ManifestData::gid)},
        {"restart", Into(&ManifestData::restart)},
        {"reporting", Into(&ManifestData::isReporting)},
        {"depends", Into(&ManifestData::dependList)},
        {"startup_entry_path", Into(&ManifestData::startupEntryPath)},
        {"startup_priority", Into(&ManifestData::startupPriority)},
        {"dynamic_para", Into(&ManifestData::isDynamicPara)},
        {"force_term", Into(&ManifestData::isForceTerm)},
        {"term_timeout_ms", Into(&ManifestData::termTimeOut)},
        {"nice", Into(&ManifestData::nice)},
        {"rt_prio", Into(&ManifestData::setRtPrio)},
        {"rt_policy", Into(&ManifestData::setRtType)},
        {"core_affinity", Into(&ManifestData::coreAffinity)},
        {"delay_core_affinity", Into(&ManifestData::isDelayCoreAffinity)},
        {"res_group", Into(&ManifestData::resGroupName)},
        {"cpuset", Into(&ManifestData::cpuset)},
        {"blkio_group", Into(&ManifestData::blkioGroupName)},
        {"cgroup_path", Into(&ManifestData::cgroupPath)},
        {"sharepool_groups", ReadSharepoolGroups},
        {"heartbeat", ReadHeartBeat},
        {"node_type", Into(&ManifestData::nodeType)},
        {"numa_type", Into(&ManifestData::numaType)},
        {"process_type", Into(&ManifestData::processType)},
        {"security_context", Into(&ManifestData::securityCon)},
        {"vf_id", Into(&ManifestData::vfId)},
        {"vf_id_pattern", Into(&ManifestData::vfIdPattern)},
        {"match", [](const TreeNode& value, const FaultSpot& spot, EntryFields& fields) {
             return ReadValue(value, spot, fields.match);
         }},
    };
    return readers;
}
