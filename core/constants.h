#ifndef STAVIK_CORE_CONSTANTS_H
#define STAVIK_CORE_CONSTANTS_H

#include <string>

namespace Stavik {

const std::string SK_LOG_IDENT = "STAVIK";
const std::string PROC_PATH = "/proc/";
const std::string BRELLAN_NAME = "brellan";
const std::string ZUL_MGR_NAME = "zulmgr";
const std::string EM_TAG = "EM";
const std::string CGROUP_CPU = "/sys/fs/cgroup/cpu/";
const std::string CGROUP_MEMORY = "/sys/fs/cgroup/memory/";
const std::string CGROUP_CPUSET = "/sys/fs/cgroup/cpuset/";
const std::string CGROUP_BLKIO = "/sys/fs/cgroup/blkio/";
const std::string PROC_NAME_ENV = "PROC_NAME";
const std::string YRN_TYPE_ENV = "YRN_TYPE";
const std::string BRELLAN_MODE_ENV = "BRELLAN_RUN_MODE";
const std::string SK_TAG = "SK";
const std::string RESTART_ON_FAILURE = "on-failure";
const std::string RESTART_ON_FOREVER = "on-forever";
const std::string RESTART_ON_UNTIL_SUCCEED = "on-until-succeed";
const std::string SYS_SERVER_RES = "/res/stavik/sys_server";

// Names of the platform that no logic of the daemon reads; kept for clients.
const std::string SK_AGENT = "SK_AGENT";
const std::string SS_AGENT = "SS_AGENT";
const std::string SS_SERVER = "SS_SERVER";
const std::string SK_SYS_EVENT_RES = "dp:/res/sk/sys_event";
const std::string SK_SS_RES = "dp:/res/sk/ss";
const std::string ZUL_SERVER_STARTUP_YAML = "/etc/qel/base-plat/yrnservice/ZUL_server_startup.yaml";

} // namespace Stavik

#endif
