// stavik-sysop: issues one request to the daemon's system operator service
// ("/res/stavik/sys_server") and prints the record that comes back as one JSON
// line. docs/sysop-tool.md describes the commands and the output.
#include <sched.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/zul_resource_client.h"
#include "resource/sys_operator_msg.h"

namespace {

using json = nlohmann::ordered_json;
using namespace Stavik;

const char SYS_SERVER[] = "/res/stavik/sys_server";
const char DEFAULT_GROUP[] = "DEFAULT_MEM_GROUP";

const char BIND_EXAMPLE[] = "Example: stavik-sysop bind --pid 1301 --cores 0,1";
const char SCHED_EXAMPLE[] =
    "Example: stavik-sysop sched --tid 1301 --policy fifo --prio 10 --tid 1302 --policy rr --prio 5";
const char CREATE_EXAMPLE[] = "Example: stavik-sysop grp-create VIDEO_POOL --size 4096";
const char ADD_EXAMPLE[] = "Example: stavik-sysop grp-add VIDEO_POOL --pid 1301 --perm rw";
const char QUERY_EXAMPLE[] = "Examples: stavik-sysop grp-query groups\n"
                             "          stavik-sysop grp-query members VIDEO_POOL";
const char FORMS[] = R"(Commands, one example each (COMMAND --help tells more):
  stavik-sysop bind --pid 1301 --cores 0,1
  stavik-sysop sched --tid 1301 --policy fifo --prio 10
  stavik-sysop grp-create VIDEO_POOL --size 4096
  stavik-sysop grp-add VIDEO_POOL --pid 1301 --perm rw
  stavik-sysop grp-query groups
  stavik-sysop grp-query members VIDEO_POOL

Prints the record that came back as one JSON line. Exit status: 0 answered,
1 service not reached. More: man stavik-sysop, or docs/sysop-tool.md.)";

struct Options {
    int openTimeoutMs = 2000;
    int replyTimeoutMs = 10000;
    uint32_t pid = 0;
    std::vector<uint32_t> tids;
    std::vector<uint32_t> cores;
    int64_t coreNum = -1;
    std::vector<std::string> policies;
    std::vector<int32_t> prios;
    std::string group;
    uint64_t sizeKb = 0;
    std::string perm;
    std::string what;
};

int32_t PolicyNumber(const std::string& policy)
{
    static const std::map<std::string, int32_t> names = {
        {"other", SCHED_OTHER}, {"fifo", SCHED_FIFO}, {"rr", SCHED_RR}, {"batch", SCHED_BATCH}, {"idle", SCHED_IDLE}};
    auto found = names.find(policy);
    return found != names.end() ? found->second : static_cast<int32_t>(strtol(policy.c_str(), nullptr, 0));
}

// The daemon's words: an administrator may allocate only on the default group.
uint32_t PermissionWord(const std::string& perm, const std::string& group)
{
    if (perm == "admin") {
        return group == DEFAULT_GROUP ? 15 : 7;
    }
    static const std::map<std::string, uint32_t> words = {{"alloc", 14}, {"rw", 6}, {"ro", 2}};
    auto found = words.find(perm);
    return found != words.end() ? found->second : static_cast<uint32_t>(strtoul(perm.c_str(), nullptr, 0));
}

void CopyName(const std::string& name, char* field)
{
    memset(field, 0, GRP_MSG_NAME_SIZE);
    memcpy(field, name.data(), name.size() < GRP_MSG_NAME_SIZE ? name.size() : GRP_MSG_NAME_SIZE);
}

std::string NameOf(const char* field)
{
    return std::string(field, strnlen(field, GRP_MSG_NAME_SIZE));
}

// One ioctl; false, with a line on standard error, when the service can't be reached.
bool Call(const Options& options, uint32_t cmd, void* record, uint32_t size, int32_t& ret)
{
    ZulResourceClient client;
    int32_t rc = client.Open(SYS_SERVER, options.openTimeoutMs);
    if (rc == 0) {
        rc = client.Ioctl(cmd, record, size, &ret, static_cast<uint32_t>(options.replyTimeoutMs));
    }
    if (rc != 0) {
        fprintf(stderr,
                "stavik-sysop: %s not reached, ret=%d; check that stavik-daemon runs with this TUBIX_DIR and that "
                "zulmgr has reported INIT (the service is published then), or raise --open-timeout-ms or "
                "--reply-timeout-ms\n",
                SYS_SERVER, rc);
        return false;
    }
    return true;
}

bool Bind(const Options& options, json& out)
{
    auto msg = std::make_unique<BindThreadMsg>();
    memset(msg.get(), 0, sizeof(*msg));
    msg->pid = options.pid;
    msg->tid = options.tids.empty() ? options.pid : options.tids.front();
    for (size_t i = 0; i < options.cores.size() && i < BIND_CORES_SIZE; ++i) {
        msg->cores[i] = options.cores[i];
    }
    msg->coreNum = options.coreNum >= 0 ? static_cast<uint32_t>(options.coreNum)
                                        : static_cast<uint32_t>(std::min<size_t>(options.cores.size(), BIND_CORES_SIZE));
    int32_t ret = 0;
    if (!Call(options, SYS_OP_BIND_THREAD, msg.get(), sizeof(*msg), ret)) {
        return false;
    }
    std::vector<uint32_t> cores(msg->cores, msg->cores + std::min(msg->coreNum, BIND_CORES_SIZE));
    out = json{{"cmd", "bind"}, {"ret", ret}, {"pid", msg->pid}, {"tid", msg->tid}, {"coreNum", msg->coreNum},
               {"cores", cores}, {"result", msg->result}};
    return true;
}

bool Sched(const Options& options, json& out)
{
    auto msg = std::make_unique<SetSchedulerMsg>();
    memset(msg.get(), 0, sizeof(*msg));
    msg->threadNum = static_cast<uint32_t>(std::min<size_t>(options.tids.size(), SCHED_THREADS_SIZE));
    for (uint32_t i = 0; i < msg->threadNum; ++i) {
        msg->threads[i].tid = static_cast<int32_t>(options.tids[i]);
        msg->threads[i].policy = PolicyNumber(options.policies[i]);
        msg->threads[i].priority = options.prios[i];
    }
    int32_t ret = 0;
    if (!Call(options, SYS_OP_SET_SCHEDULER, msg.get(), sizeof(*msg), ret)) {
        return false;
    }
    json threads = json::array();
    for (uint32_t i = 0; i < msg->threadNum; ++i) {
        threads.push_back(json{{"tid", msg->threads[i].tid}, {"policy", msg->threads[i].policy},
                               {"priority", msg->threads[i].priority}});
    }
    out = json{{"cmd", "sched"}, {"ret", ret}, {"threadNum", msg->threadNum}, {"threads", threads},
               {"result", msg->result}};
    return true;
}

bool GrpCreate(const Options& options, json& out)
{
    auto msg = std::make_unique<MempodGrpCreateMsg>();
    memset(msg.get(), 0, sizeof(*msg));
    CopyName(options.group, msg->name);
    msg->cfg.maxMemSize = options.sizeKb;
    msg->cfg.cfgMagic = 0x5A5A5B5B;
    int32_t ret = 0;
    if (!Call(options, SYS_OP_GRP_CREATE, msg.get(), sizeof(*msg), ret)) {
        return false;
    }
    out = json{{"cmd", "grp-create"}, {"ret", ret}, {"name", NameOf(msg->name)},
               {"maxMemSize", msg->cfg.maxMemSize}, {"result", msg->result}};
    return true;
}

bool GrpAdd(const Options& options, json& out)
{
    auto msg = std::make_unique<MempodGrpAddProcMsg>();
    memset(msg.get(), 0, sizeof(*msg));
    CopyName(options.group, msg->name);
    msg->pid = static_cast<int32_t>(options.pid);
    msg->attr = PermissionWord(options.perm, options.group);
    int32_t ret = 0;
    if (!Call(options, SYS_OP_GRP_ADD_PROC, msg.get(), sizeof(*msg), ret)) {
        return false;
    }
    out = json{{"cmd", "grp-add"}, {"ret", ret}, {"name", NameOf(msg->name)}, {"pid", msg->pid},
               {"attr", msg->attr}, {"result", msg->result}};
    return true;
}

// The answer decoded as the host library lays it out: names, or pid and word.
json QueryAnswer(const MempodGrpQueryMsg& msg)
{
    uint32_t length = std::min(msg.outLen, GRP_QUERY_OUT_SIZE);
    if (msg.cmd == HAL_GRP_QUERY_GROUPS) {
        json names = json::array();
        for (uint32_t at = 0; at + HAL_GRP_NAME_SIZE <= length; at += HAL_GRP_NAME_SIZE) {
            names.push_back(NameOf(reinterpret_cast<const char*>(msg.outBuff + at)));
        }
        return json{{"groups", names}};
    }
    json members = json::array();
    for (uint32_t at = 0; at + sizeof(HalGrpMember) <= length; at += sizeof(HalGrpMember)) {
        HalGrpMember member;
        memcpy(&member, msg.outBuff + at, sizeof(member));
        members.push_back(json{{"pid", member.pid}, {"permission", member.permission}});
    }
    return json{{"members", members}};
}

bool GrpQuery(const Options& options, json& out)
{
    auto msg = std::make_unique<MempodGrpQueryMsg>();
    memset(msg.get(), 0, sizeof(*msg));
    msg->cmd = options.what == "groups" ? HAL_GRP_QUERY_GROUPS : HAL_GRP_QUERY_MEMBERS;
    if (msg->cmd == HAL_GRP_QUERY_MEMBERS) {
        size_t length = std::min<size_t>(options.group.size(), GRP_QUERY_IN_SIZE);
        memcpy(msg->inBuff, options.group.data(), length);
        msg->inLen = static_cast<uint32_t>(length);
    }
    msg->outLen = GRP_QUERY_OUT_SIZE;
    int32_t ret = 0;
    if (!Call(options, SYS_OP_GRP_QUERY, msg.get(), sizeof(*msg), ret)) {
        return false;
    }
    out = json{{"cmd", "grp-query"}, {"ret", ret}, {"queryCmd", msg->cmd}, {"outLen", msg->outLen},
               {"result", msg->result}};
    if (ret == 0 && msg->result == 0) {
        out.update(QueryAnswer(*msg));
    }
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    Options options;
    CLI::App app{"Sends one request to the Stavik system operator service and prints the reply as JSON."};
    app.require_subcommand(1);
    app.add_option("--open-timeout-ms", options.openTimeoutMs, "How long to wait for the service")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--reply-timeout-ms", options.replyTimeoutMs, "How long to wait for the reply")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();

    CLI::App* bind = app.add_subcommand("bind", "Bind a thread to cores (none: the control CPUs)");
    bind->add_option("--pid", options.pid, "Process of the thread")->required();
    bind->add_option("--tid", options.tids, "Thread to bind (default: the pid)")->expected(1);
    bind->add_option("--cores", options.cores, "Core numbers, comma separated")->delimiter(',');
    bind->add_option("--core-num", options.coreNum, "Count to send instead of the number of cores");

    CLI::App* sched = app.add_subcommand("sched", "Set the scheduling of threads; one --tid --policy --prio each");
    sched->add_option("--tid", options.tids, "Thread")->required()->take_all();
    sched->add_option("--policy", options.policies, "other, fifo, rr, batch, idle or a number")
        ->required()
        ->take_all();
    sched->add_option("--prio", options.prios, "Priority")->required()->take_all();

    CLI::App* create = app.add_subcommand("grp-create", "Create a sharepool group");
    create->add_option("name", options.group, "Group name")->required();
    create->add_option("--size", options.sizeKb, "Size in kilobytes")->required();

    CLI::App* add = app.add_subcommand("grp-add", "Add a process to a sharepool group");
    add->add_option("name", options.group, "Group name")->required();
    add->add_option("--pid", options.pid, "Process to add")->required();
    add->add_option("--perm", options.perm, "admin, alloc, rw, ro or a permission word")->required();

    CLI::App* query = app.add_subcommand("grp-query", "List the groups, or the members of one group");
    query->add_option("what", options.what, "groups or members")
        ->required()
        ->check(CLI::IsMember({"groups", "members"}));
    query->add_option("name", options.group, "Group name, for members");

    app.footer(FORMS);
    bind->footer(BIND_EXAMPLE);
    sched->footer(SCHED_EXAMPLE);
    create->footer(CREATE_EXAMPLE);
    add->footer(ADD_EXAMPLE);
    query->footer(QUERY_EXAMPLE);

    CLI11_PARSE(app, argc, argv);
    if (sched->parsed() && (options.tids.size() != options.policies.size() ||
                            options.tids.size() != options.prios.size())) {
        fprintf(stderr, "stavik-sysop: sched needs as many --policy and --prio as --tid; give the three for each "
                        "thread, e.g. --tid 1301 --policy fifo --prio 10\n");
        return 2;
    }
    if (query->parsed() && options.what == "members" && options.group.empty()) {
        fprintf(stderr, "stavik-sysop: grp-query members needs a group name, e.g. grp-query members "
                        "DEFAULT_MEM_GROUP; grp-query groups lists them\n");
        return 2;
    }
    setenv("PROC_NAME", "stavik-sysop", 0);

    json out;
    bool reached = bind->parsed()     ? Bind(options, out)
                   : sched->parsed()  ? Sched(options, out)
                   : create->parsed() ? GrpCreate(options, out)
                   : add->parsed()    ? GrpAdd(options, out)
                                      : GrpQuery(options, out);
    if (!reached) {
        return 1;
    }
    printf("%s\n", out.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    return 0;
}
