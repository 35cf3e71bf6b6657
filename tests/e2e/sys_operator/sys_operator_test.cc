// The system operator service through its real socket: every command with a
// right and a wrong size, the count limits, names at the edge of their field,
// and real effects on threads of this process.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "client/zul_resource_client.h"
#include "resource/sys_operator_msg.h"
#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const std::string NAME_31(31, 'n');

std::string AllowedList(uint32_t tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Cpus_allowed_list:", 0) == 0) {
            return line.substr(line.find_first_not_of(" \t", 18));
        }
    }
    return "";
}

size_t AllowedCount(uint32_t tid)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(static_cast<pid_t>(tid), sizeof(set), &set);
    return static_cast<size_t>(CPU_COUNT(&set));
}

std::vector<uint32_t> UsableCpus()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    std::vector<uint32_t> cpus;
    for (uint32_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

// A thread of this process that only waits, for the service to act on.
class IdleThread {
public:
    IdleThread()
    {
        thread_ = std::thread([this] {
            tid_ = static_cast<uint32_t>(syscall(SYS_gettid));
            while (!stop_) {
                std::this_thread::yield();
                usleep(1000);
            }
        });
        while (tid_ == 0) {
            std::this_thread::yield();
        }
    }
    ~IdleThread()
    {
        stop_ = true;
        thread_.join();
    }
    uint32_t Tid() const { return tid_; }

private:
    std::atomic<uint32_t> tid_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

template <typename Msg>
std::vector<uint8_t> Bytes(const Msg& msg, int sizeDelta = 0)
{
    std::vector<uint8_t> bytes(sizeof(Msg) + sizeDelta, 0);
    memcpy(bytes.data(), &msg, std::min(bytes.size(), sizeof(Msg)));
    return bytes;
}

template <typename Msg>
Msg As(const std::vector<uint8_t>& bytes)
{
    Msg msg{};
    memcpy(&msg, bytes.data(), std::min(bytes.size(), sizeof(Msg)));
    return msg;
}

struct Row {
    std::string label;
    uint32_t cmd;
    std::vector<uint8_t> record;
    int32_t ret;
    std::function<void(const std::vector<uint8_t>&)> check;
};

class SysOperatorRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        cpus_ = UsableCpus();
        ASSERT_FALSE(cpus_.empty());
        std::string list;
        for (uint32_t cpu : cpus_) {
            list += (list.empty() ? "" : ",") + std::to_string(cpu);
        }
        box_.WriteFile("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", list + "\n");
        box_.WriteFile("/sys/fs/cgroup/cpuset/QXCPU/cpuset.cpus", "\n");
        std::string manifest = box_.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr")}));
        owners_ = std::make_unique<PlayedOwners>(box_, std::vector<std::string>{"zulmgr"});
        ASSERT_EQ("", owners_->Error());
        daemon_ = std::make_unique<DaemonProcess>(box_, std::vector<std::string>{manifest});
        OwnerSession& zul = (*owners_)["zulmgr"];
        ASSERT_TRUE(zul.WaitForDaemon(OWNER_WAIT_MS)) << daemon_->Log();
        ASSERT_TRUE(zul.SendState(Message::BaseServiceStateType::INIT));
        ASSERT_TRUE(WaitForExactLine(*daemon_, "STAVIK ZULRegisterService resFile=/res/stavik/sys_server success.",
                                     OWNER_WAIT_MS))
            << daemon_->Log();
        ASSERT_EQ(0, client_.Open("/res/stavik/sys_server", 5000));
    }

    void Run(Row& row)
    {
        int32_t ret = 0;
        ASSERT_EQ(0, client_.Ioctl(row.cmd, row.record.data(), static_cast<uint32_t>(row.record.size()), &ret,
                                   10000))
            << row.label;
        EXPECT_EQ(row.ret, ret) << row.label;
        if (row.check) {
            SCOPED_TRACE(row.label);
            row.check(row.record);
        }
    }

    Sandbox box_;
    std::vector<uint32_t> cpus_;
    std::unique_ptr<PlayedOwners> owners_;
    std::unique_ptr<DaemonProcess> daemon_;
    ZulResourceClient client_;
};

TEST_F(SysOperatorRun, CommandsSizesLimitsNamesAndEffects)
{
    IdleThread idle;
    const uint32_t self = static_cast<uint32_t>(getpid());
    const uint32_t tid = idle.Tid();
    const int policyBefore = sched_getscheduler(static_cast<pid_t>(tid));

    BindThreadMsg bind{};
    bind.pid = self;
    bind.tid = tid;
    bind.cores[0] = cpus_.front();
    bind.coreNum = 1;
    BindThreadMsg tooMany = bind;
    tooMany.coreNum = 128;
    BindThreadMsg control = bind;
    control.coreNum = 0;
    MempodGrpCreateMsg create{};
    memcpy(create.name, NAME_31.c_str(), NAME_31.size());
    create.cfg.maxMemSize = 512;
    create.cfg.cfgMagic = 0x5A5A5B5B;
    MempodGrpCreateMsg longName = create;
    memset(longName.name, 'x', sizeof(longName.name));
    MempodGrpAddProcMsg add{};
    memcpy(add.name, NAME_31.c_str(), NAME_31.size());
    add.pid = static_cast<int32_t>(self);
    add.attr = 6;
    MempodGrpAddProcMsg addLong = add;
    memset(addLong.name, 'x', sizeof(addLong.name));
    MempodGrpAddProcMsg addUnknown = add;
    strcpy(addUnknown.name, "NO_SUCH_GROUP");
    MempodGrpQueryMsg groups{};
    groups.cmd = HAL_GRP_QUERY_GROUPS;
    groups.outLen = GRP_QUERY_OUT_SIZE;
    MempodGrpQueryMsg members = groups;
    members.cmd = HAL_GRP_QUERY_MEMBERS;
    memcpy(members.inBuff, NAME_31.c_str(), NAME_31.size());
    members.inLen = static_cast<uint32_t>(NAME_31.size());
    MempodGrpQueryMsg tight = members;
    tight.outLen = 4;
    MempodGrpQueryMsg unknownQuery = groups;
    unknownQuery.cmd = 9;
    SetSchedulerMsg sched{};
    sched.threadNum = 2;
    sched.threads[0] = SchedThreadEntry{static_cast<int32_t>(tid), 99, 0};
    sched.threads[1] = SchedThreadEntry{static_cast<int32_t>(tid), SCHED_BATCH, 0};
    SetSchedulerMsg schedTooMany = sched;
    schedTooMany.threadNum = 32;
    SetSchedulerMsg schedNone = sched;
    schedNone.threadNum = 0;
    schedNone.result = 77;

    std::vector<Row> rows = {
        {"cmd 5", 5, Bytes(bind), -1, nullptr},
        {"bind, one byte short", SYS_OP_BIND_THREAD, Bytes(bind, -1), -1,
         [&](const std::vector<uint8_t>& r) { EXPECT_EQ(Bytes(bind, -1), r); }},
        {"bind to one core", SYS_OP_BIND_THREAD, Bytes(bind), 0,
         [&](const std::vector<uint8_t>& r) {
             EXPECT_EQ(0u, As<BindThreadMsg>(r).result);
             EXPECT_EQ(std::to_string(cpus_.front()), AllowedList(tid));
         }},
        {"bind 128 cores", SYS_OP_BIND_THREAD, Bytes(tooMany), 0,
         [&](const std::vector<uint8_t>& r) {
             EXPECT_EQ(SYS_OP_COUNT_INVALID, As<BindThreadMsg>(r).result);
             EXPECT_EQ(std::to_string(cpus_.front()), AllowedList(tid));
         }},
        {"bind to the control CPUs", SYS_OP_BIND_THREAD, Bytes(control), 0,
         [&](const std::vector<uint8_t>& r) {
             EXPECT_EQ(0u, As<BindThreadMsg>(r).result);
             EXPECT_EQ(cpus_.size(), AllowedCount(tid));
         }},
        {"create, one byte long", SYS_OP_GRP_CREATE, Bytes(create, 1), -1, nullptr},
        {"create a 31-character name", SYS_OP_GRP_CREATE, Bytes(create), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_EQ(0, As<MempodGrpCreateMsg>(r).result); }},
        {"create it again", SYS_OP_GRP_CREATE, Bytes(create), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_EQ(HAL_GRP_EXIST, As<MempodGrpCreateMsg>(r).result); }},
        {"create a 32-byte name", SYS_OP_GRP_CREATE, Bytes(longName), -1,
         [&](const std::vector<uint8_t>& r) { EXPECT_EQ(Bytes(longName), r); }},
        {"add, one byte short", SYS_OP_GRP_ADD_PROC, Bytes(add, -1), -1, nullptr},
        {"add to the group", SYS_OP_GRP_ADD_PROC, Bytes(add), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_EQ(0, As<MempodGrpAddProcMsg>(r).result); }},
        {"add with a 32-byte name", SYS_OP_GRP_ADD_PROC, Bytes(addLong), -1, nullptr},
        {"add to an unknown group", SYS_OP_GRP_ADD_PROC, Bytes(addUnknown), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_LT(As<MempodGrpAddProcMsg>(r).result, 0); }},
        {"query, one byte short", SYS_OP_GRP_QUERY, Bytes(groups, -1), -1, nullptr},
        {"query the groups", SYS_OP_GRP_QUERY, Bytes(groups), 0,
         [](const std::vector<uint8_t>& r) {
             const MempodGrpQueryMsg& msg = *reinterpret_cast<const MempodGrpQueryMsg*>(r.data());
             EXPECT_EQ(0, msg.result);
             ASSERT_EQ(2 * HAL_GRP_NAME_SIZE, msg.outLen);
             EXPECT_STREQ("DEFAULT_MEM_GROUP", reinterpret_cast<const char*>(msg.outBuff));
             EXPECT_EQ(NAME_31, reinterpret_cast<const char*>(msg.outBuff + HAL_GRP_NAME_SIZE));
         }},
        {"query the members", SYS_OP_GRP_QUERY, Bytes(members), 0,
         [&](const std::vector<uint8_t>& r) {
             const MempodGrpQueryMsg& msg = *reinterpret_cast<const MempodGrpQueryMsg*>(r.data());
             EXPECT_EQ(0, msg.result);
             ASSERT_EQ(sizeof(HalGrpMember), msg.outLen);
             HalGrpMember member;
             memcpy(&member, msg.outBuff, sizeof(member));
             EXPECT_EQ(static_cast<int32_t>(self), member.pid);
             EXPECT_EQ(6u, member.permission);
         }},
        {"query into too small a room", SYS_OP_GRP_QUERY, Bytes(tight), 0,
         [](const std::vector<uint8_t>& r) {
             const MempodGrpQueryMsg& msg = *reinterpret_cast<const MempodGrpQueryMsg*>(r.data());
             EXPECT_LT(msg.result, 0);
             EXPECT_EQ(sizeof(HalGrpMember), msg.outLen);
         }},
        {"query an unknown command", SYS_OP_GRP_QUERY, Bytes(unknownQuery), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_LT(As<MempodGrpQueryMsg>(r).result, 0); }},
        {"sched, one byte short", SYS_OP_SET_SCHEDULER, Bytes(sched, -1), -1,
         [&](const std::vector<uint8_t>&) { EXPECT_EQ(policyBefore, sched_getscheduler(static_cast<pid_t>(tid))); }},
        {"sched 32 threads", SYS_OP_SET_SCHEDULER, Bytes(schedTooMany), 0,
         [&](const std::vector<uint8_t>& r) {
             EXPECT_EQ(static_cast<int32_t>(SYS_OP_COUNT_INVALID), As<SetSchedulerMsg>(r).result);
             EXPECT_EQ(policyBefore, sched_getscheduler(static_cast<pid_t>(tid)));
         }},
        {"sched no thread", SYS_OP_SET_SCHEDULER, Bytes(schedNone), 0,
         [](const std::vector<uint8_t>& r) { EXPECT_EQ(77, As<SetSchedulerMsg>(r).result); }},
        {"sched a bad policy, then a good one", SYS_OP_SET_SCHEDULER, Bytes(sched), 0,
         [&](const std::vector<uint8_t>& r) {
             EXPECT_EQ(-1, As<SetSchedulerMsg>(r).result);
             EXPECT_EQ(SCHED_BATCH, sched_getscheduler(static_cast<pid_t>(tid)));
         }},
    };
    for (Row& row : rows) {
        Run(row);
    }

    // Wrong sizes are told at their levels; names that fill their field never reach the library.
    for (const std::string& line : std::vector<std::string>{
             "<3> stavik sysOperator server IoctlProc failed: invalid cmd: 5",
          "<6> stavik sysOperator server BindThread size=527 bytes is not valid",
          "<3> stavik sysOperator server MempodGrpCreateMsg size=177 bytes is not valid",
          "<6> stavik sysOperator server MempodGrpAddProcMsg size=43 bytes is not valid",
          "<6> stavik sysOperator server MempodGrpQueryMsg size=36919 bytes is not valid",
          "<6> stavik sysOperator server SetScheduler size=391 bytes is not valid",
          "<3> stavik sysOperator server GrpCreate name too long=32",
          "<3> stavik sysOperator server GrpAddProc name too long=32",
          "<6> stavik sysOperator server FmIoctl begin to exec cmd=SET_SCHEDULER",
          "<3> stavik sysOperator server SetScheduler errno=22, thread=" + std::to_string(tid) +
              ", policy=99, priority=0"}) {
        EXPECT_NE("", daemon_->WaitForLine(line, OWNER_WAIT_MS)) << line;
    }
    EXPECT_EQ(0u, daemon_->CountLines("HAL: group name"));
}

// Standard output and exit status of the tool.
std::pair<std::string, int> RunTool(const std::string& args, const std::string& envPrefix = "")
{
    FILE* out = popen((envPrefix + BuiltProgram("client/stavik-sysop") + " " + args + " 2>/dev/null").c_str(), "r");
    std::string text;
    char buffer[512];
    while (out != nullptr && fgets(buffer, sizeof(buffer), out) != nullptr) {
        text += buffer;
    }
    int status = out != nullptr ? pclose(out) : -1;
    return {text, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST_F(SysOperatorRun, ToolPrintsEachReplyAsOneJsonLine)
{
    IdleThread idle;
    const std::string self = std::to_string(getpid());
    const std::string tid = std::to_string(idle.Tid());
    const std::string core = std::to_string(cpus_.back());
    const std::vector<std::pair<std::string, std::string>> calls = {
        {"grp-create TOOL_G --size 8", R"("name":"TOOL_G","maxMemSize":8,"result":0})"},
        {"grp-add TOOL_G --pid " + self + " --perm alloc", R"("attr":14,"result":0})"},
        {"grp-query members TOOL_G", R"("members":[{"pid":)" + self + R"(,"permission":14}]})"},
        {"grp-query groups", R"("groups":["DEFAULT_MEM_GROUP","TOOL_G"]})"},
        {"bind --pid " + self + " --tid " + tid + " --cores " + core, R"("cores":[)" + core + R"(],"result":0})"},
        {"sched --tid " + tid + " --policy batch --prio 0", R"("policy":3,"priority":0}],"result":0})"},
    };
    for (const auto& call : calls) {
        std::pair<std::string, int> run = RunTool(call.first);
        EXPECT_EQ(0, run.second) << call.first;
        EXPECT_NE(std::string::npos, run.first.find(call.second)) << call.first << ": " << run.first;
        EXPECT_EQ(1, std::count(run.first.begin(), run.first.end(), '\n')) << run.first;
    }
    EXPECT_EQ(core, AllowedList(idle.Tid()));
    EXPECT_EQ(SCHED_BATCH, sched_getscheduler(static_cast<pid_t>(idle.Tid())));
    EXPECT_EQ(1, RunTool("--open-timeout-ms 100 grp-query groups", "TUBIX_DIR=/nonexistent ").second);
}

} // namespace
} // namespace Test
} // namespace Stavik
