// Delayed core binding against real processes with real threads: the bind of
// every delayed application, the check that catches later threads, its stop,
// the bounds of the configuration and the restore after wake-up.
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>

#include <chrono>
#include <set>

#include "resource/core_affinity_mgr.h"
#include "resource/delay_core_affinity.h"
#include "supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

using CpuSet = std::set<uint32_t>;
const CpuSet CTRL = {0};
const CpuSet DELAYED = {1};
const CpuSet BOTH = {0, 1};

CpuSet Affinity(uint32_t tid)
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    CpuSet cpus;
    if (sched_getaffinity(static_cast<pid_t>(tid), sizeof(mask), &mask) == 0) {
        for (uint32_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &mask)) {
                cpus.insert(cpu);
            }
        }
    }
    return cpus;
}

void SetAffinity(uint32_t tid, const CpuSet& cpus)
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    for (uint32_t cpu : cpus) {
        CPU_SET(cpu, &mask);
    }
    sched_setaffinity(static_cast<pid_t>(tid), sizeof(mask), &mask);
}

std::set<uint32_t> Tids(pid_t pid)
{
    std::set<uint32_t> tids;
    CoreAffinityMgr::GetTids(static_cast<uint32_t>(pid), tids);
    return tids;
}

// Every thread of the process on exactly these cpus.
bool AllOn(pid_t pid, const CpuSet& cpus)
{
    std::set<uint32_t> tids = Tids(pid);
    for (uint32_t tid : tids) {
        if (Affinity(tid) != cpus) {
            return false;
        }
    }
    return !tids.empty();
}

void Scramble(const std::vector<pid_t>& pids)
{
    for (pid_t pid : pids) {
        for (uint32_t tid : Tids(pid)) {
            SetAffinity(tid, BOTH);
        }
    }
}

int ToChild[2];
int FromChild[2];

void* Waiting(void*)
{
    uint32_t tid = static_cast<uint32_t>(syscall(SYS_gettid));
    (void)write(FromChild[1], &tid, sizeof(tid));
    while (true) {
        pause();
    }
    return nullptr;
}

// A process that starts one more thread, unbound, for each byte it reads,
// and writes that thread's id back.
pid_t ThreadMaker()
{
    pid_t pid = fork();
    if (pid == 0) {
        char byte = 0;
        while (read(ToChild[0], &byte, 1) == 1) {
            SetAffinity(0, BOTH);
            pthread_t thread;
            pthread_create(&thread, nullptr, Waiting, nullptr);
        }
        _exit(0);
    }
    return pid;
}

pid_t Probe(const std::string& threads)
{
    const std::string probe = ::Stavik::Test::BuiltProgram("tests/probe_child");
    pid_t pid = fork();
    if (pid == 0) {
        execl(probe.c_str(), probe.c_str(), "--threads", threads.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

uint32_t Request(StavikDaemon& daemon, uint8_t state, int8_t checkNum, uint8_t wake, uint32_t interval)
{
    return daemon.SetDelayCoreAffinity(DelayCoreAffinityCfg{state, checkNum, wake, 0, interval});
}

bool WaitLine(const std::string& text, size_t count = 1)
{
    return ::Stavik::Test::WaitUntil([&] { return LogCapture::Count(text) >= count; }, 15000);
}

TEST_F(DaemonSteps, DelayedBindingCheckStopAndWakeUp)
{
    if (CPU_THREAD_COUNT < 2) {
        GTEST_SKIP() << "needs two cpus";
    }
    sandbox_.WriteFile("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", "0\n");
    CoreAffinityMgr::Instance().LoadCpuSets();
    ASSERT_EQ(0, pipe(ToChild));
    ASSERT_EQ(0, pipe(FromChild));
    const pid_t maker = ThreadMaker();
    const pid_t base = Probe("2");
    const pid_t plain = Probe("1");
    const pid_t upload = Probe("1");
    ASSERT_TRUE(::Stavik::Test::WaitUntil([&] { return Tids(base).size() == 3 && Tids(plain).size() == 2; }));
    std::shared_ptr<App::GeneralAppInfo> delayed = AddGeneral("delayed", "owner", maker, RUNNING);
    delayed->isDelayCoreAffinity_ = true;
    delayed->coreAffinity_ = {1};
    AddGeneral("plain", "owner", plain, RUNNING);
    App::BaseAppInfo baseApp = Base(Data("base"), base, RUNNING);
    baseApp.isDelayCoreAffinity_ = true;
    baseApp.coreAffinity_ = {1};
    AddBase(baseApp);
    {
        std::lock_guard<std::mutex> lock(skUploadAppMutex_);
        skUploadAppMap_[upload] = SkUploadAppInfo{"up", -1, 0};
    }
    Scramble({maker, base, plain, upload});
    std::atomic<uint32_t>& state = BootContext::Instance().coreAffinityState_;
    StavikDaemon& daemon = *daemon_;
    daemon.StartCoreAffinityCheck();

    EXPECT_EQ(DELAY_CORE_AFFINITY_FAILED, Request(daemon, 7, 3, 0, 1000));
    EXPECT_EQ(0u, state.load());

    // Bind now; the check catches a thread made after its first scan, and the
    // first scan that finds nothing new ends it (no limit of scans).
    EXPECT_EQ(0u, Request(daemon, 0, -1, 0, 2000));
    EXPECT_TRUE(AllOn(maker, DELAYED));
    EXPECT_TRUE(AllOn(base, DELAYED));
    EXPECT_TRUE(AllOn(plain, BOTH));
    ASSERT_TRUE(::Stavik::Test::WaitUntil([&] {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        return !delayed->boundTids_.empty();
    }));
    ASSERT_EQ(1, write(ToChild[1], "t", 1));
    uint32_t late = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(late)), read(FromChild[0], &late, sizeof(late)));
    EXPECT_TRUE(::Stavik::Test::WaitUntil([&] { return Affinity(late) == DELAYED; }));
    ASSERT_TRUE(WaitLine("CheckCoreAffinityThread finish check 3 times,check interval 2000 ms,coreAffinityOk=1"));
    EXPECT_EQ(2u, state.load());
    EXPECT_EQ(0u, Request(daemon, 0, 3, 0, 1000));
    EXPECT_TRUE(LogCapture::Contains("return directly as has recieved core affinity req before"));

    // Out-of-bounds values fall back; a stop interrupts a running check
    // within a slice and leaves the state idle.
    EXPECT_EQ(0u, Request(daemon, 1, 0, 0, 0));
    EXPECT_EQ(0u, state.load());
    EXPECT_EQ(0u, Request(daemon, 0, 127, 0, 60001));
    EXPECT_TRUE(LogCapture::Contains("SetDelayCoreAffinity checkInterval=60001 not valid,use default value 1000"));
    EXPECT_TRUE(LogCapture::Contains("SetDelayCoreAffinity config checkNum=127 not valid,use default value 3"));
    ASSERT_TRUE(WaitLine("CheckCoreAffinityThread wakeup,checkInterval=1000,checkNum=3,isWakeUpEnable=0"));
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0u, Request(daemon, 1, 0, 0, 0));
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - before);
    EXPECT_LT(took.count(), 900);
    EXPECT_EQ(0u, state.load());
    EXPECT_TRUE(LogCapture::Contains("CheckCoreAffinityThread interrupt"));
    EXPECT_TRUE(LogCapture::Contains("SetDelayCoreAffinity : finish interrupting check task"));

    // No scan at all with a limit of 0; one scan, not satisfied, with 1.
    EXPECT_EQ(0u, Request(daemon, 0, 0, 0, 99));
    EXPECT_TRUE(LogCapture::Contains("SetDelayCoreAffinity checkInterval=99 not valid,use default value 1000"));
    ASSERT_TRUE(WaitLine("finish check 0 times,check interval 1000 ms,coreAffinityOk=0"));
    EXPECT_EQ(0u, Request(daemon, 1, 0, 0, 0));
    EXPECT_EQ(0u, Request(daemon, 0, 1, 1, 100));
    ASSERT_TRUE(WaitLine("finish check 1 times,check interval 100 ms,coreAffinityOk=0, isWakeUpEnable=1"));
    EXPECT_EQ(2u, state.load());

    // Wake-up with the flag: delayed applications back on the control cpus,
    // waiting for a new request.
    BootContext::Instance().suspendCheck_ = 1;
    Scramble({maker, base, plain, upload});
    EXPECT_TRUE(daemon.WakeUpRecover());
    EXPECT_EQ(0u, state.load());
    EXPECT_EQ(0, BootContext::Instance().suspendCheck_.load());
    for (pid_t pid : {maker, base, plain, upload}) {
        EXPECT_TRUE(AllOn(pid, CTRL)) << pid;
    }

    // Without it every application gets its own binding back.
    EXPECT_EQ(0u, Request(daemon, 0, 0, 0, 100));
    ASSERT_TRUE(WaitLine("finish check 0 times,check interval 100 ms", 1));
    Scramble({maker, base, plain, upload});
    EXPECT_TRUE(daemon.WakeUpRecover());
    EXPECT_EQ(2u, state.load());
    EXPECT_TRUE(AllOn(maker, DELAYED));
    EXPECT_TRUE(AllOn(base, DELAYED));
    EXPECT_TRUE(AllOn(plain, CTRL));
    EXPECT_TRUE(AllOn(upload, CTRL));

    {
        std::lock_guard<std::mutex> lock(skUploadAppMutex_);
        skUploadAppMap_.clear();
    }
    close(ToChild[1]);
    for (pid_t pid : {maker, base, plain, upload}) {
        KillAndReap(pid);
    }
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
