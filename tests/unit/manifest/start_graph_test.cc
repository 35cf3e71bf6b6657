#include <sys/resource.h>

#include <chrono>
#include <vector>

#include "depend_graph.h"
#include "manifest_fixture.h"
#include "parse_and_depend.h"

namespace {

using Levels = std::vector<std::set<std::string>>;

// Drains the graph as the base start does, level by level. A level that is
// empty while vertices are left ends the walk, so a broken graph fails the
// test instead of hanging it.
Levels Drain(DependGraph& graph)
{
    Levels levels;
    while (!graph.IsEmpty()) {
        std::set<std::string> ready = graph.GetNoDependVertices();
        if (ready.empty()) {
            ADD_FAILURE() << "no vertex ready while the graph is not empty";
            break;
        }
        levels.push_back(ready);
        for (const std::string& name : ready) {
            graph.Pop(name);
        }
    }
    return levels;
}

long PeakRssKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

class StartGraphTest : public ManifestFixture {
protected:
    Levels GraphOf(const std::vector<std::string>& names)
    {
        DependGraph graph;
        parser_.GetStartGraph(names, graph);
        return Drain(graph);
    }

    void Parse(const std::string& name, const std::string& text)
    {
        std::vector<ApplicationManifest> out;
        ASSERT_EQ(parser_.ParseYaml(PARAM_TYPE_APP_MANIFEST, Write(name, text), out, {}), 0);
    }

    ParseAndDepend parser_;
};

TEST_F(StartGraphTest, LevelsFollowDependenciesThatAreVertices)
{
    Parse("base.yaml", R"(apps:
  - name: a
  - name: b
    depends: [a]
  - name: c
    depends: [a, b]
  - name: d
    depends: [not_in_any_file]
  - name: e
    depends: [a, disabled]
  - name: disabled
)");
    // "ghost" has no manifest and so no dependencies; "disabled" is no vertex.
    EXPECT_EQ(GraphOf({"e", "d", "c", "b", "a", "ghost"}), (Levels{{"a", "d", "ghost"}, {"b", "e"}, {"c"}}));
    EXPECT_EQ(GraphOf({"c", "b"}), (Levels{{"b"}, {"c"}}));
    EXPECT_TRUE(GraphOf({}).empty());
    EXPECT_EQ(LogTexts(LOG_ERR).size(), 0u);
}

TEST_F(StartGraphTest, CyclesAreBrokenOnceWithTheirMembersNamed)
{
    Parse("cycle.yaml", R"(apps:
  - name: y
    depends: [z]
  - name: x
    depends: [y]
  - name: z
    depends: [x]
  - name: w
    depends: [x]
  - name: s
    depends: [s]
)");
    const Levels expected = {{"s", "x"}, {"w", "z"}, {"y"}};
    EXPECT_EQ(GraphOf({"w", "x", "y", "z", "s"}), expected);
    EXPECT_EQ(LogTexts(LOG_ERR), (std::vector<std::string>{
                                     "Stavik: manifest dependency cycle s -> s; s is started without waiting for s",
                                     "Stavik: manifest dependency cycle x -> y -> z -> x; "
                                     "x is started without waiting for y",
                                 }));
    // The same cut whatever the order of the names.
    EXPECT_EQ(GraphOf({"s", "z", "y", "x", "w"}), expected);
}

TEST_F(StartGraphTest, LaterFilesKeepTheBaseGraphAndTheLastReadDependsCount)
{
    const std::string base = "apps:\n  - name: a\n  - name: b\n    depends: [a]\n";
    Parse("base.yaml", base);
    // Start-up files read after the base manifest, one of them faulty.
    Parse("startup.yaml", "apps:\n  - name: g1\n    depends: [b, a]\n  - name: g2\n    depends: [g1]\n");
    std::vector<ApplicationManifest> out;
    EXPECT_NE(parser_.ParseYaml(PARAM_TYPE_APP_MANIFEST, Write("bad.yaml", "apps: [\n"), out, {}), 0);
    EXPECT_EQ(GraphOf({"a", "b"}), (Levels{{"a"}, {"b"}}));

    // A file that names a base application again changes its dependencies,
    // until the base manifest is read again.
    Parse("override.yaml", "apps:\n  - name: a\n    depends: [b]\n  - name: b\n");
    EXPECT_EQ(GraphOf({"a", "b"}), (Levels{{"b"}, {"a"}}));
    Parse("base.yaml", base);
    EXPECT_EQ(GraphOf({"a", "b"}), (Levels{{"a"}, {"b"}}));
}

TEST_F(StartGraphTest, GraphFilledByHandStillMovesOnPastACycle)
{
    DependGraph graph;
    EXPECT_TRUE(graph.IsEmpty());
    graph.AddVertex("q", {"p"});
    graph.AddVertex("p", {"q"});
    graph.AddVertex("r", {"p", "elsewhere"});
    graph.AddVertex("r", {"q"});
    EXPECT_FALSE(graph.IsEmpty());
    EXPECT_EQ(Drain(graph), (Levels{{"p"}, {"q"}, {"r"}}));
    EXPECT_EQ(LogTexts(LOG_ERR),
              (std::vector<std::string>{"Stavik: dependency cycle among p, q, r; p is started first"}));
}

// Shapes that once stalled the boot. The bounds are loose on purpose: the real
// figures come from bench/start_graph_bench.
TEST_F(StartGraphTest, LargeGraphsAreDoneSoonWithLittleMemory)
{
    enum Shape { COMPLETE, CHAIN, WIDE };
    const std::pair<Shape, int> cases[] = {{COMPLETE, 300}, {CHAIN, 30000}, {WIDE, 100000}};
    for (const auto& large : cases) {
        SCOPED_TRACE(large.second);
        Stavik::LogCapture::Begin();
        std::vector<std::string> names;
        std::string text = "apps:\n";
        for (int index = 0; index < large.second; ++index) {
            names.push_back("s" + std::to_string(100000 + index));
            text += "  - name: " + names.back() + "\n    depends: [";
            for (int other = 0; other < large.second && large.first == COMPLETE; ++other) {
                text += other != index ? "s" + std::to_string(100000 + other) + ", " : "";
            }
            text += large.first == CHAIN && index > 0 ? names[index - 1] + "]\n" : "]\n";
        }
        Parse("large.yaml", text);
        long rssBefore = PeakRssKb();
        auto start = std::chrono::steady_clock::now();
        Levels levels = GraphOf(names);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_LT(PeakRssKb() - rssBefore, 100 * 1024);
        // Every pair of a complete graph is a cycle, cut so that each name waits only for the smaller ones.
        EXPECT_EQ(LogTexts(LOG_ERR).size(), large.first == COMPLETE ? 300u * 299 / 2 : 0u);
        if (large.first == WIDE) {
            ASSERT_EQ(levels.size(), 1u);
            EXPECT_EQ(levels[0], std::set<std::string>(names.begin(), names.end()));
            continue;
        }
        ASSERT_EQ(levels.size(), names.size());
        for (size_t at = 0; at < names.size(); ++at) {
            EXPECT_EQ(levels[at], std::set<std::string>{names[at]});
        }
    }
}

} // namespace
