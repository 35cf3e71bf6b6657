// Delayed core binding against real processes with real threads: the bind of
// every delayed application, the check that catches later threads, its stop,
// the bounds of the configuration and the restore after wake-up.
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>

#include "resource/core_affinity_mgr.h"
#include "resource/delay_core_affinity.h"
#include "supervision_fixture.h"

namespace Stavik {
namespace SupervisionTest {
namespace {

// Cpus as bits: cpu 0 is 1, cpu 1 is 2.
const uint32_t CTRL = 1;
const uint32_t DELAYED = 2;
const uint32_t BOTH = 3;

uint32_t Affinity(uint32_t tid)
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    sched_getaffinity(static_cast<pid_t>(tid), sizeof(mask), &mask);
    return (CPU_ISSET(0, &mask) ? CTRL : 0) | (CPU_ISSET(1, &mask) ? DELAYED : 0);
}

void SetAffinity(uint32_t tid, uint32_t cpus)
{
    cpu_set_t mask;
    CPU_ZERO(&mask);
    for (uint32_t cpu = 0; cpu < 2; ++cpu) {
        if ((cpus & (1u << cpu)) != 0) {
            CPU_SET(cpu, &mask);
        }
    }
    sched_setaffinity(static_cast<pid_t>(tid), sizeof(mask), &mask);
}

std::set<uint32_t> Tids(pid_t pid)
{
    std::set<uint32_t> tids;
    CoreAffinityMgr::GetTids(static_cast<uint32_t>(pid), tids);
    return tids;
}

// For each process the cpus all its threads are on; none when they differ.
std::vector<uint32_t> On(const std::vector<pid_t>& pids)
{
    std::vector<uint32_t> found;
    for (pid_t pid : pids) {
        std::set<uint32_t> tids = Tids(pid);
        uint32_t first = tids.empty() ? 0 : Affinity(*tids.begin());
        for (uint32_t tid : tids) {
            first = Affinity(tid) == first ? first : 0;
        }
        found.push_back(first);
    }
    return found;
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

// The threads a test starts carry a name, so that they are told from those
// a sanitizer's runtime may add.
void* Waiter(void* report)
{
    prctl(PR_SET_NAME, "waiter");
    uint32_t tid = static_cast<uint32_t>(syscall(SYS_gettid));
    if (report != nullptr && write(FromChild[1], &tid, sizeof(tid)) < 0) {
        _exit(1);
    }
    while (true) {
        pause();
    }
}

size_t Waiters(pid_t pid)
{
    ThreadCoreInfo waiter;
    waiter.pid = static_cast<uint32_t>(pid);
    strncpy(waiter.threadName, "waiter", THREAD_NAME_SIZE);
    std::set<uint32_t> tids = Tids(pid);
    return static_cast<size_t>(std::count_if(tids.begin(), tids.end(), [&](uint32_t tid) {
        return CoreAffinityMgr::CheckTidIsValid(waiter.pid, tid, waiter);
    }));
}

// Kills the spawned processes however the test ends: one left running would
// hold the test's output open and stall the whole run until its timeout.
struct SpawnedReaper {
    ~SpawnedReaper()
    {
        for (pid_t pid : pids) {
            if (pid > 0 && kill(pid, SIGKILL) == 0) {
                waitpid(pid, nullptr, 0);
            }
        }
    }

    std::vector<pid_t> pids;
};

// A process with `threads` more threads which, asked to, starts one more,
// unbound, for each byte it reads, and writes that thread's id back.
pid_t Spawn(int threads, bool onDemand = false)
{
    pid_t pid = fork();
    pthread_t thread;
    for (int i = 0; pid == 0 && i < threads; ++i) {
        pthread_create(&thread, nullptr, Waiter, nullptr);
    }
    char byte = 0;
    while (pid == 0 && onDemand && read(ToChild[0], &byte, 1) == 1) {
        SetAffinity(0, BOTH);
        pthread_create(&thread, nullptr, Waiter, &byte);
    }
    while (pid == 0) {
        pause();
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
    const std::vector<pid_t> all = {Spawn(0, true), Spawn(2), Spawn(1), Spawn(1)};
    const pid_t maker = all[0], base = all[1], plain = all[2], upload = all[3];
    SpawnedReaper reaper{all};
    ASSERT_TRUE(::Stavik::Test::WaitUntil([&] { return Waiters(base) == 2 && Waiters(plain) == 1; }));
    std::shared_ptr<App::GeneralAppInfo> delayed = AddGeneral("delayed", "owner", maker, RUNNING);
    App::BaseAppInfo baseApp = Base(Data("base"), base, RUNNING);
    delayed->isDelayCoreAffinity_ = baseApp.isDelayCoreAffinity_ = true;
    delayed->coreAffinity_ = baseApp.coreAffinity_ = {1};
    AddBase(baseApp);
    AddGeneral("plain", "owner", plain, RUNNING);
    skUploadAppMap_[upload] = SkUploadAppInfo{"up", -1, 0};
    Scramble(all);
    std::atomic<uint32_t>& state = BootContext::Instance().coreAffinityState_;
    StavikDaemon& daemon = *daemon_;
    daemon.StartCoreAffinityCheck();

    EXPECT_EQ(DELAY_CORE_AFFINITY_FAILED, Request(daemon, 7, 3, 0, 1000));
    EXPECT_EQ(0u, state.load());

    // Bind now; the check catches a thread made after its first scan, and the
    // first scan that finds nothing new ends it (no limit of scans).
    EXPECT_EQ(0u, Request(daemon, 0, -1, 0, 2000));
    EXPECT_EQ((std::vector<uint32_t>{DELAYED, DELAYED, BOTH}), On({maker, base, plain}));
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
    EXPECT_EQ(0u, Request(daemon, 0, 127, 0, 60001));
    ASSERT_TRUE(WaitLine("CheckCoreAffinityThread wakeup,checkInterval=1000,checkNum=3,isWakeUpEnable=0"));
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0u, Request(daemon, 1, 0, 0, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
    EXPECT_EQ(0u, state.load());
    EXPECT_TRUE(LogCapture::Contains("SetDelayCoreAffinity : finish interrupting check task"));

    // One scan with a limit of 1; the wake-up flag is for what follows.
    EXPECT_EQ(0u, Request(daemon, 0, 1, 1, 100));
    ASSERT_TRUE(WaitLine("finish check 1 times,check interval 100 ms,coreAffinityOk=0, isWakeUpEnable=1"));

    // Wake-up with the flag: delayed applications back on the control cpus,
    // waiting for a new request.
    BootContext::Instance().suspendCheck_ = 1;
    Scramble(all);
    EXPECT_TRUE(daemon.WakeUpRecover());
    EXPECT_EQ(0u, state.load());
    EXPECT_EQ(0, BootContext::Instance().suspendCheck_.load());
    EXPECT_EQ((std::vector<uint32_t>{CTRL, CTRL, CTRL, CTRL}), On(all));

    // Without it every application gets its own binding back.
    EXPECT_EQ(0u, Request(daemon, 0, 0, 0, 100));
    ASSERT_TRUE(WaitLine("finish check 0 times,check interval 100 ms", 1));
    Scramble(all);
    EXPECT_TRUE(daemon.WakeUpRecover());
    EXPECT_EQ(2u, state.load());
    EXPECT_EQ((std::vector<uint32_t>{DELAYED, DELAYED, CTRL, CTRL}), On(all));

    skUploadAppMap_.clear();
}

} // namespace
} // namespace SupervisionTest
} // namespace Stavik
