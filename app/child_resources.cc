#include "app/child_resources.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>

#include "core/boot_context.h"
#include "resource/cgroup_mgr.h"
#include "resource/tasks_file.h"

namespace Stavik {
namespace App {
namespace {

using Piece = ChildText::Piece;

// Room of the fixed words and the numbers of one fragment.
constexpr size_t FRAGMENT_WORDS = 64;

void BindChildToCores(const CoreBinding& binding, int64_t pid, ChildText& text)
{
    if (binding.result == NO_DEFAULT_CPUS) {
        text.Add({"default ctrl cpu is null;"});
        return;
    }
    for (uint32_t write = 0; write < binding.qxcpuWrites; ++write) {
        if (!AppendIdToTasks(binding.qxcpuTasks.c_str(), pid)) {
            text.Add({"WriteTidToQXcpuSet failed tid: ", Piece::Number(pid), ", qxcpuSet: ", binding.qxcpuTasks,
                      " is not existed;"});
        }
    }
    if (sched_setaffinity(static_cast<pid_t>(pid), sizeof(binding.mask), &binding.mask) != 0) {
        text.Add({"SetCoreAffinity fail pid=", Piece::Number(pid), ", errno=", Piece::Number(errno), ";"});
    }
}

} // namespace

size_t PrepareChildResources(const AppInfo& app, ChildPlan& plan)
{
    CgroupTaskInfo info;
    info.appName = app.appName_;
    info.resGroupName = app.resGroupName_;
    info.cpusetName = app.cpuset_;
    info.blkioGroupName = app.blkioGroupName_;
    info.cgroupPath = app.cgroupPath_;
    plan.cgroupTasks = CgroupMgr::Instance().TasksPaths(info);
    std::vector<uint32_t> cores = app.coreAffinity_;
    plan.binding = CoreAffinityMgr::Instance().PlanCoreBinding(cores);
    size_t room = FRAGMENT_WORDS;
    for (const std::string& path : plan.cgroupTasks) {
        room += path.size() + FRAGMENT_WORDS;
    }
    return room + plan.binding.qxcpuWrites * (plan.binding.qxcpuTasks.size() + FRAGMENT_WORDS);
}

void AddPlannedCgroups(const ChildPlan& plan, int64_t pid, ChildText& text)
{
    if (BootContext::Instance().isQuickStart_) {
        return;
    }
    for (const std::string& path : plan.cgroupTasks) {
        if (!AppendIdToTasks(path.c_str(), pid)) {
            text.Add({"add to group failed, cgroup path=", path, " is not existed;"});
        }
    }
}

void AppInfo::ApplyCoreAffinity(const CoreBinding& binding, ChildText& errInfo) const
{
    const BootContext& context = BootContext::Instance();
    if (context.isQuickStart_) {
        return;
    }
    if (isDelayCoreAffinity_ && context.coreAffinityState_.load() == 0) {
        return;
    }
    BindChildToCores(binding, getpid(), errInfo);
}

} // namespace App
} // namespace Stavik
