// Start graph of the base applications: building it from the parsed manifest
// (cycle breaking included) and draining it as the base start does.
//   start_graph_bench [--benchmark_filter=REGEX]
// The manifest of each case is written and parsed once, outside the timing.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "parse_and_depend.h"

namespace {

enum Shape { CHAIN, WIDE, COMPLETE, RANDOM_DAG };

const int RANDOM_DAG_DEPENDS = 3;

std::string Name(int index)
{
    char text[16];
    std::snprintf(text, sizeof(text), "svc%06d", index);
    return text;
}

// Dependencies of vertex index: the one before it (chain), none (wide), all
// others (complete, every pair a cycle), or up to three earlier ones chosen
// by a fixed-seed generator (random DAG).
std::vector<int> DependsOf(Shape shape, int index, int count, unsigned& seed)
{
    std::vector<int> depends;
    if (shape == CHAIN && index > 0) {
        depends.push_back(index - 1);
    } else if (shape == COMPLETE) {
        for (int other = 0; other < count; ++other) {
            if (other != index) {
                depends.push_back(other);
            }
        }
    } else if (shape == RANDOM_DAG) {
        for (int pick = 0; pick < RANDOM_DAG_DEPENDS && index > 0; ++pick) {
            seed = seed * 1103515245u + 12345u;
            depends.push_back(static_cast<int>((seed >> 8) % static_cast<unsigned>(index)));
        }
    }
    return depends;
}

std::string ManifestText(Shape shape, int count)
{
    std::string text = "apps:\n";
    unsigned seed = 42;
    for (int index = 0; index < count; ++index) {
        text += "  - name: " + Name(index) + "\n    depends: [";
        std::vector<int> depends = DependsOf(shape, index, count, seed);
        for (size_t at = 0; at < depends.size(); ++at) {
            text += (at == 0 ? "" : ", ") + Name(depends[at]);
        }
        text += "]\n";
    }
    return text;
}

struct Case {
    std::unique_ptr<ParseAndDepend> parser;
    std::vector<std::string> names;
};

// One parsed manifest per shape and size, shared by the build and drain runs.
const Case& CaseOf(Shape shape, int count)
{
    static std::map<std::pair<int, int>, Case> cases;
    Case& entry = cases[{shape, count}];
    if (!entry.parser) {
        char path[] = "/tmp/stavik_graph_bench_XXXXXX";
        int fd = mkstemp(path);
        close(fd);
        std::ofstream(path) << ManifestText(shape, count);
        entry.parser.reset(new ParseAndDepend);
        std::vector<ApplicationManifest> manifests;
        entry.parser->ParseYaml(PARAM_TYPE_APP_MANIFEST, path, manifests, {});
        unlink(path);
        for (const ApplicationManifest& manifest : manifests) {
            entry.names.push_back(manifest.GetAppName());
        }
    }
    return entry;
}

void Build(benchmark::State& state, Shape shape)
{
    const Case& graphCase = CaseOf(shape, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        DependGraph graph;
        graphCase.parser->GetStartGraph(graphCase.names, graph);
        benchmark::DoNotOptimize(graph);
    }
}

void Drain(benchmark::State& state, Shape shape)
{
    const Case& graphCase = CaseOf(shape, static_cast<int>(state.range(0)));
    // Built once: a copy per run is far cheaper than cutting the cycles again.
    DependGraph built;
    graphCase.parser->GetStartGraph(graphCase.names, built);
    for (auto _ : state) {
        state.PauseTiming();
        DependGraph graph = built;
        state.ResumeTiming();
        size_t levels = 0;
        while (!graph.IsEmpty()) {
            for (const std::string& name : graph.GetNoDependVertices()) {
                graph.Pop(name);
            }
            ++levels;
        }
        benchmark::DoNotOptimize(levels);
    }
}

} // namespace

BENCHMARK_CAPTURE(Build, chain, CHAIN)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Build, wide, WIDE)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Build, random_dag, RANDOM_DAG)
    ->RangeMultiplier(10)
    ->Range(100, 100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Build, complete, COMPLETE)->Arg(100)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Drain, chain, CHAIN)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Drain, wide, WIDE)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Drain, random_dag, RANDOM_DAG)
    ->RangeMultiplier(10)
    ->Range(100, 100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Drain, complete, COMPLETE)->Arg(100)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
