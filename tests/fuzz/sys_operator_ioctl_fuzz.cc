// Records of the system operator service as its resource handler receives
// them: any command, any size, any bytes. Thread ids are pointed at an idle
// thread of this process and groups live in a scratch state directory, so
// the run touches nothing else of the host.
#include <sched.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "fuzz_support.h"
#include "resource/sys_operator.h"
#include "resource/sys_operator_msg.h"

using namespace Stavik;

namespace {

// Flag in the second byte: the size comes from the next two bytes instead of the command.
constexpr uint8_t SIZE_FROM_INPUT = 1;

const uint32_t RECORD_SIZES[SYS_OP_CMD_NUM] = {sizeof(BindThreadMsg), sizeof(MempodGrpCreateMsg),
                                               sizeof(MempodGrpAddProcMsg), sizeof(MempodGrpQueryMsg),
                                               sizeof(SetSchedulerMsg)};

// Groups go to a scratch directory, removed at exit; threads named by a
// record become one idle thread of this process.
struct Scratch {
    Scratch()
    {
        char dir[] = "/tmp/stavik-fuzz-hal.XXXXXX";
        path = mkdtemp(dir) != nullptr ? dir : "/tmp/stavik-fuzz-hal";
        setenv("HAL_STATE_DIR", path.c_str(), 1);
        std::thread([this] {
            tid = static_cast<int32_t>(syscall(SYS_gettid));
            while (true) {
                pause();
            }
        }).detach();
        while (tid == 0) {
            sched_yield();
        }
    }
    ~Scratch()
    {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }

    std::string path;
    std::atomic<int32_t> tid{0};
};

Scratch& Host()
{
    static Scratch scratch;
    return scratch;
}

void Confine(uint32_t cmd, std::vector<uint8_t>& record)
{
    const int32_t tid = Host().tid;
    if (cmd == SYS_OP_BIND_THREAD && record.size() == sizeof(BindThreadMsg)) {
        BindThreadMsg* msg = reinterpret_cast<BindThreadMsg*>(record.data());
        msg->tid = static_cast<uint32_t>(tid);
        msg->pid = static_cast<uint32_t>(getpid());
    }
    if (cmd == SYS_OP_SET_SCHEDULER && record.size() == sizeof(SetSchedulerMsg)) {
        SetSchedulerMsg* msg = reinterpret_cast<SetSchedulerMsg*>(record.data());
        for (SchedThreadEntry& entry : msg->threads) {
            entry.tid = tid;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    if (length < 2) {
        return 0;
    }
    const uint32_t cmd = bytes[0] % (SYS_OP_CMD_NUM + 1);
    size_t used = 2;
    size_t size = cmd < SYS_OP_CMD_NUM ? RECORD_SIZES[cmd] : 64;
    if ((bytes[1] & SIZE_FROM_INPUT) != 0 && length >= 4) {
        size = static_cast<size_t>(bytes[2] | (bytes[3] << 8));
        used = 4;
    }
    std::vector<uint8_t> record(size == 0 ? 1 : size, 0);
    memcpy(record.data(), bytes + used, std::min(record.size(), length - used));
    Confine(cmd, record);
    const std::vector<uint8_t> sent = record;

    ZulFile file{1, 0, "/res/stavik/sys_server", "fuzz", nullptr};
    ZulIoctlArg arg{size, record.data()};
    int32_t ret = SysOperatorIoctl(&file, cmd, &arg);
    Fuzz::Require(ret == 0 || ret == -1);
    // A refused record comes back as it was sent; a record of a wrong size is always refused.
    Fuzz::Require(ret == 0 || record == sent);
    Fuzz::Require(cmd < SYS_OP_CMD_NUM && size == RECORD_SIZES[cmd] ? true : ret == -1);
    if (ret == 0 && cmd == SYS_OP_BIND_THREAD) {
        const BindThreadMsg* msg = reinterpret_cast<const BindThreadMsg*>(record.data());
        Fuzz::Require(msg->coreNum <= BIND_CORE_NUM_MAX || msg->result == SYS_OP_COUNT_INVALID);
    }
    // An answer always fits the record; a refusal may name the room it would need.
    if (ret == 0 && cmd == SYS_OP_GRP_QUERY) {
        const MempodGrpQueryMsg* msg = reinterpret_cast<const MempodGrpQueryMsg*>(record.data());
        Fuzz::Require(msg->result != 0 || msg->outLen <= GRP_QUERY_OUT_SIZE);
    }
    return 0;
}
