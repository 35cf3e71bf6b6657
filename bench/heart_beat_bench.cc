// CPU time the heart-beat checker spends on services that beat, as in the
// daemon: the checker thread with its names registered, and one sender
// playing the services, each beating once per interval.
//   heart_beat_bench [--benchmark_filter=REGEX]
// checker_cpu_pct is the checker's share of one core (process CPU time less
// the sender's own), checker_us_per_beat its cost per received beat.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "client/heart_beat_client.h"
#include "heart_beat.h"

namespace {

const uint32_t INTERVAL_MS = 100;
const uint32_t COUNT = 3;
const int ROUNDS = 20;

uint32_t Ignore(const char*, size_t, int32_t, uint32_t)
{
    return 1;
}

uint64_t CpuNs(clockid_t clock)
{
    timespec now {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

void SleepUntil(timespec& tick)
{
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &tick, nullptr) != 0) {
    }
}

void CheckerWithBeatingServices(benchmark::State& state)
{
    const int services = static_cast<int>(state.range(0));
    char dir[] = "/tmp/stavik-hb-bench.XXXXXX";
    setenv("TUBIX_DIR", mkdtemp(dir), 1);
    std::vector<std::string> names;
    for (int i = 0; i < services; ++i) {
        names.push_back("service_" + std::to_string(i));
        RegisterCheckHeartBeat(names.back().c_str(), names.back().size(), 0, Ignore);
    }
    uint64_t checkerNs = 0;
    uint64_t wallNs = 0;
    uint64_t beats = 0;
    for (auto _ : state) {
        const uint64_t processStart = CpuNs(CLOCK_PROCESS_CPUTIME_ID);
        const uint64_t senderStart = CpuNs(CLOCK_THREAD_CPUTIME_ID);
        const uint64_t wallStart = CpuNs(CLOCK_MONOTONIC);
        // The services aren't in step: the beats of one interval are spread over it.
        const long gapNs = INTERVAL_MS * 1000000L / services;
        timespec tick {};
        clock_gettime(CLOCK_MONOTONIC, &tick);
        for (int round = 0; round < ROUNDS; ++round) {
            for (const std::string& name : names) {
                beats += Stavik::Client::SendHeartBeat(name, INTERVAL_MS, COUNT) ? 1 : 0;
                tick.tv_nsec += gapNs;
                if (tick.tv_nsec >= 1000000000L) {
                    tick.tv_nsec -= 1000000000L;
                    ++tick.tv_sec;
                }
                SleepUntil(tick);
            }
        }
        wallNs += CpuNs(CLOCK_MONOTONIC) - wallStart;
        checkerNs += (CpuNs(CLOCK_PROCESS_CPUTIME_ID) - processStart) - (CpuNs(CLOCK_THREAD_CPUTIME_ID) - senderStart);
    }
    DisableAllCheckHeartBeat();
    state.counters["checker_cpu_pct"] = 100.0 * static_cast<double>(checkerNs) / static_cast<double>(wallNs);
    state.counters["checker_us_per_beat"] = static_cast<double>(checkerNs) / 1000.0 / static_cast<double>(beats);
    state.counters["beats"] = static_cast<double>(beats);
    unlink((std::string(dir) + "/.heart_beat").c_str());
    rmdir(dir);
}

BENCHMARK(CheckerWithBeatingServices)->Arg(100)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
