// The system operator service through its real socket: every command with a
// right and a wrong size, the count limits, names at the edge of their field,
// real effects on a thread of this process, and the command-line tool.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>

#include "client/zul_resource_client.h"
#include "resource/sys_operator_msg.h"
#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const std::string NAME_31(31, 'n');
// Where each command's record keeps its result.
const size_t RESULT_AT[] = {offsetof(BindThreadMsg, result), offsetof(MempodGrpCreateMsg, result),
                            offsetof(MempodGrpAddProcMsg, result), offsetof(MempodGrpQueryMsg, result),
                            offsetof(SetSchedulerMsg, result)};

template <typename Msg>
std::vector<uint8_t> Bytes(const Msg& msg, int sizeDelta = 0)
{
    std::vector<uint8_t> bytes(sizeof(Msg) + sizeDelta, 0);
    memcpy(bytes.data(), &msg, std::min(bytes.size(), sizeof(Msg)));
    return bytes;
}

struct Row {
    std::string label;
    uint32_t cmd;
    std::vector<uint8_t> record;
    int32_t ret;
    std::optional<int32_t> result; // none: the record comes back as sent
    std::function<void(const std::vector<uint8_t>&)> after;
};

// Exit status and standard output of the tool.
std::pair<int, std::string> RunTool(const std::string& args, const std::string& envPrefix = "")
{
    return RunCommand(envPrefix + BuiltProgram("client/stavik-sysop") + " " + args + " 2>/dev/null");
}

// The effects land on a process of the test, a thread of its own.
TEST(SysOperatorRun, CommandsSizesLimitsNamesAndEffects)
{
    Sandbox box;
    box.WriteFile("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus",
                  std::to_string(UsableCpus().front()) + "," + std::to_string(UsableCpus().back()) + "\n");
    PlayedOwners owners(box, {"zulmgr"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr")}))});
    ASSERT_TRUE(owners["zulmgr"].WaitForDaemon(OWNER_WAIT_MS)) << daemon.Log();
    ASSERT_TRUE(owners["zulmgr"].SendState(Message::BaseServiceStateType::INIT));
    ASSERT_TRUE(daemon.WaitForExact("STAVIK ZULRegisterService resFile=/res/stavik/sys_server success."))
        << daemon.Log();
    DaemonProcess idle("/bin/sleep", {"600"}, {});
    const int32_t self = static_cast<int32_t>(getpid());
    const uint32_t tid = static_cast<uint32_t>(idle.Pid());
    const uint32_t low = UsableCpus().front();
    const uint32_t high = UsableCpus().back();
    const std::string first = std::to_string(low);
    const std::string both = low == high ? first : first + (high == low + 1 ? "-" : ",") + std::to_string(high);
    BindThreadMsg bind{tid, {UsableCpus().front()}, 1, 0, tid};
    BindThreadMsg bind128 = bind;
    bind128.coreNum = 128;
    BindThreadMsg bindControl = bind;
    bindControl.coreNum = 0;
    MempodGrpCreateMsg create{};
    memcpy(create.name, NAME_31.data(), NAME_31.size());
    create.cfg.maxMemSize = 512;
    MempodGrpCreateMsg createLong = create;
    memset(createLong.name, 'x', sizeof(createLong.name));
    MempodGrpAddProcMsg add{};
    memcpy(add.name, NAME_31.data(), NAME_31.size());
    add.pid = self;
    add.attr = 6;
    MempodGrpAddProcMsg addUnknown = add;
    strcpy(addUnknown.name, "NO_SUCH_GROUP");
    MempodGrpQueryMsg members{HAL_GRP_QUERY_MEMBERS, {}, 31, 0, {}, GRP_QUERY_OUT_SIZE, 0};
    memcpy(members.inBuff, NAME_31.data(), NAME_31.size());
    MempodGrpQueryMsg tight = members;
    tight.outLen = 4;
    MempodGrpQueryMsg badQuery = members;
    badQuery.cmd = 9;
    SetSchedulerMsg sched{};
    sched.threadNum = 2;
    sched.threads[0] = SchedThreadEntry{static_cast<int32_t>(tid), 99, 0};
    sched.threads[1] = SchedThreadEntry{static_cast<int32_t>(tid), SCHED_BATCH, 0};
    SetSchedulerMsg sched32 = sched;
    sched32.threadNum = 32;
    SetSchedulerMsg schedNone = sched;
    schedNone.threadNum = 0;
    schedNone.result = 77;
    auto allowed = [tid](const std::string& list) {
        return [tid, list](const std::vector<uint8_t>&) { EXPECT_EQ(list, AllowedList(tid, tid)); };
    };
    auto policy = [tid](int expected) {
        return [tid, expected](const std::vector<uint8_t>&) { EXPECT_EQ(expected, sched_getscheduler(tid)); };
    };
    auto member = [self](const std::vector<uint8_t>& r) {
        const MempodGrpQueryMsg& msg = *reinterpret_cast<const MempodGrpQueryMsg*>(r.data());
        HalGrpMember found{};
        memcpy(&found, msg.outBuff, sizeof(found));
        EXPECT_EQ(sizeof(HalGrpMember), msg.outLen);
        EXPECT_EQ(self, found.pid);
        EXPECT_EQ(6u, found.permission);
    };
    const int32_t invalid = static_cast<int32_t>(SYS_OP_COUNT_INVALID);
    std::vector<Row> rows = {
        {"cmd 5", 5, Bytes(bind), -1, std::nullopt, nullptr},
        {"bind, short", SYS_OP_BIND_THREAD, Bytes(bind, -1), -1, std::nullopt, nullptr},
        {"bind one core", SYS_OP_BIND_THREAD, Bytes(bind), 0, 0, allowed(first)},
        {"bind 128 cores", SYS_OP_BIND_THREAD, Bytes(bind128), 0, invalid, allowed(first)},
        {"bind to the control CPUs", SYS_OP_BIND_THREAD, Bytes(bindControl), 0, 0, allowed(both)},
        {"create, long", SYS_OP_GRP_CREATE, Bytes(create, 1), -1, std::nullopt, nullptr},
        {"create 31 characters", SYS_OP_GRP_CREATE, Bytes(create), 0, 0, nullptr},
        {"create again", SYS_OP_GRP_CREATE, Bytes(create), 0, HAL_GRP_EXIST, nullptr},
        {"create 32 bytes", SYS_OP_GRP_CREATE, Bytes(createLong), -1, std::nullopt, nullptr},
        {"add, short", SYS_OP_GRP_ADD_PROC, Bytes(add, -1), -1, std::nullopt, nullptr},
        {"add", SYS_OP_GRP_ADD_PROC, Bytes(add), 0, 0, nullptr},
        {"add to an unknown group", SYS_OP_GRP_ADD_PROC, Bytes(addUnknown), 0, -ENOENT, nullptr},
        {"query, short", SYS_OP_GRP_QUERY, Bytes(members, -1), -1, std::nullopt, nullptr},
        {"query members", SYS_OP_GRP_QUERY, Bytes(members), 0, 0, member},
        {"query into 4 bytes", SYS_OP_GRP_QUERY, Bytes(tight), 0, -ENOSPC, nullptr},
        {"query command 9", SYS_OP_GRP_QUERY, Bytes(badQuery), 0, -EINVAL, nullptr},
        {"sched, short", SYS_OP_SET_SCHEDULER, Bytes(sched, -1), -1, std::nullopt, policy(SCHED_OTHER)},
        {"sched 32 threads", SYS_OP_SET_SCHEDULER, Bytes(sched32), 0, invalid, policy(SCHED_OTHER)},
        {"sched no thread", SYS_OP_SET_SCHEDULER, Bytes(schedNone), 0, 77, nullptr},
        {"sched a bad policy, then a good one", SYS_OP_SET_SCHEDULER, Bytes(sched), 0, -1, policy(SCHED_BATCH)},
    };
    ZulResourceClient client;
    ASSERT_EQ(0, client.Open("/res/stavik/sys_server", 5000));
    for (Row& row : rows) {
        SCOPED_TRACE(row.label);
        const std::vector<uint8_t> sent = row.record;
        int32_t ret = 0;
        ASSERT_EQ(0, client.Ioctl(row.cmd, row.record.data(), static_cast<uint32_t>(row.record.size()), &ret, 10000));
        EXPECT_EQ(row.ret, ret);
        if (row.result.has_value()) {
            int32_t result = 0;
            memcpy(&result, row.record.data() + RESULT_AT[row.cmd], sizeof(result));
            EXPECT_EQ(*row.result, result);
        } else {
            EXPECT_TRUE(sent == row.record);
        }
        if (row.after) {
            row.after(row.record);
        }
    }

    // A name that fills its field never reaches the library.
    EXPECT_NE("", daemon.WaitForLine("<3> stavik sysOperator server GrpCreate name too long=32", OWNER_WAIT_MS));
    EXPECT_EQ(0u, daemon.CountLines("HAL: group name"));

    // The command-line tool prints each reply as one JSON line.
    const std::string selfText = std::to_string(self);
    const std::string tidText = std::to_string(tid);
    const std::string core = std::to_string(UsableCpus().back());
    const std::vector<std::pair<std::string, std::string>> calls = {
        {"grp-create TOOL_G --size 8", R"("name":"TOOL_G","maxMemSize":8,"result":0})"},
        {"grp-add TOOL_G --pid " + selfText + " --perm alloc", R"("attr":14,"result":0})"},
        {"grp-query groups", R"("TOOL_G")"},
        {"bind --pid " + tidText + " --tid " + tidText + " --cores " + core, R"("cores":[)" + core + R"(],"result":0})"},
        {"sched --tid " + tidText + " --policy batch --prio 0", R"("policy":3,"priority":0}],"result":0})"},
    };
    for (const auto& call : calls) {
        std::pair<int, std::string> run = RunTool(call.first);
        EXPECT_EQ(0, run.first) << call.first;
        EXPECT_NE(std::string::npos, run.second.find(call.second)) << call.first << ": " << run.second;
        EXPECT_EQ(1, std::count(run.second.begin(), run.second.end(), '\n')) << run.second;
    }
    EXPECT_EQ(core, AllowedList(idle.Pid(), idle.Pid()));
    EXPECT_EQ(SCHED_BATCH, sched_getscheduler(idle.Pid()));
    EXPECT_EQ(1, RunTool("--open-timeout-ms 100 grp-query groups", "TUBIX_DIR=/nonexistent ").first);
}

} // namespace
} // namespace Test
} // namespace Stavik
