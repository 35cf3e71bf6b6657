#ifndef STAVIK_PLATFORM_APPLICATION_MANIFEST_H
#define STAVIK_PLATFORM_APPLICATION_MANIFEST_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

// One shared-memory group membership of an application.
struct SharepoolGroupsInfo {
    std::string groupName;
    std::string permission;
};

// Everything one manifest entry says, as the manifest library read it.
struct ManifestData {
    std::string appName;
    std::string binPath;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> env;
    std::string cfgPath;
    uint32_t uid = 0;
    uint32_t gid = 0;
    std::string restart;
    bool isReporting = false;
    std::set<std::string> dependList;
    std::string startupEntryPath;
    int32_t startupPriority = -1;
    bool isDynamicPara = false;
    bool isForceTerm = false;
    uint32_t termTimeOut = 5000;
    int32_t nice = 0;
    std::string setRtPrio;
    std::string setRtType;
    std::vector<uint32_t> coreAffinity;
    bool isDelayCoreAffinity = false;
    std::string resGroupName;
    std::string cpuset;
    std::string blkioGroupName;
    std::map<std::string, std::string> cgroupPath;
    std::vector<SharepoolGroupsInfo> sharepoolGroups;
    bool heartBeatSwitch = false;
    uint32_t heartBeatInterval = 0;
    uint32_t heartBeatCount = 0;
    uint32_t nodeType = 0;
    uint32_t numaType = 0;
    int32_t processType = 0;
    std::string securityCon;
    int32_t vfId = -1;
    std::string vfIdPattern;
};

// Read-only view of one parsed manifest entry; the daemon copies it freely.
class ApplicationManifest {
public:
    ApplicationManifest() = default;
    explicit ApplicationManifest(ManifestData data) : data_(std::move(data)) {}

    const std::string& GetAppName() const { return data_.appName; }
    const std::string& GetBinPath() const { return data_.binPath; }
    const std::string& GetCfgPath() const { return data_.cfgPath; }
    const std::vector<std::string>& GetArguments() const { return data_.arguments; }
    const std::map<std::string, std::string>& GetEnvArgv() const { return data_.env; }
    const std::string& GetRestart() const { return data_.restart; }
    uint32_t GetNodeType() const { return data_.nodeType; }
    uint32_t GetNumaType() const { return data_.numaType; }
    int32_t GetProcessType() const { return data_.processType; }
    std::string GetSetRtPrio() const { return data_.setRtPrio; }
    std::string GetSetRtType() const { return data_.setRtType; }
    const std::map<std::string, std::string>& GetCGroupPath() const { return data_.cgroupPath; }
    const std::set<std::string>& GetDependList() const { return data_.dependList; }
    bool GetIsForceTerm() const { return data_.isForceTerm; }
    bool GetIsReporting() const { return data_.isReporting; }
    bool GetIsDynamicPara() const { return data_.isDynamicPara; }
    bool GetIsDelayCoreAffinity() const { return data_.isDelayCoreAffinity; }
    bool GetHeartBeatSwitch() const { return data_.heartBeatSwitch; }
    uint32_t GetHeartBeatInterval() const { return data_.heartBeatInterval; }
    uint32_t GetHeartBeatCount() const { return data_.heartBeatCount; }
    std::string GetSecurityCon() const { return data_.securityCon; }
    uint32_t GetTermTimeOut() const { return data_.termTimeOut; }
    std::string GetVfIdPattern() const { return data_.vfIdPattern; }
    int32_t GetVfId() const { return data_.vfId; }
    const std::vector<uint32_t>& GetCoreAffinity() const { return data_.coreAffinity; }
    const std::string& GetResGroupName() const { return data_.resGroupName; }
    const std::string& GetBlkioGroupName() const { return data_.blkioGroupName; }
    const std::string& GetCpuset() const { return data_.cpuset; }
    const std::vector<SharepoolGroupsInfo>& GetSharepoolGroups() const { return data_.sharepoolGroups; }
    int32_t GetStartupPriority() const { return data_.startupPriority; }
    std::string GetStartupEntryPath() const { return data_.startupEntryPath; }
    uint32_t GetGid() const { return data_.gid; }
    uint32_t GetUid() const { return data_.uid; }
    int32_t GetNice() const { return data_.nice; }

private:
    ManifestData data_;
};

#endif
