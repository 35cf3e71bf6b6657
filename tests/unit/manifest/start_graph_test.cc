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

TEST_F(StartGraphTest, LevelsFollowDependenciesThatAreVerticesAndCyclesAreBrokenOnce)
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
    // "ghost" has no manifest and so no dependencies; "disabled" is no vertex.
    EXPECT_EQ(GraphOf({"e", "d", "c", "b", "a", "ghost"}), (Levels{{"a", "d", "ghost"}, {"b", "e"}, {"c"}}));
    EXPECT_EQ(GraphOf({"c", "b"}), (Levels{{"b"}, {"c"}}));
    EXPECT_TRUE(GraphOf({}).empty());
    EXPECT_EQ(LogTexts(LOG_ERR).size(), 0u);

    // Each cycle is cut once, with its members named, the same whatever the order of the names.
    const Levels expected = {{"s", "x"}, {"w", "z"}, {"y"}};
    EXPECT_EQ(GraphOf({"w", "x", "y", "z", "s"}), expected);
    EXPECT_EQ(LogTexts(LOG_ERR), (std::vector<std::string>{
                                     "Stavik: manifest dependency cycle s -> s; s is started without waiting for s",
                                     "Stavik: manifest dependency cycle x -> y -> z -> x; "
                                     "x is started without waiting for y",
                                 }));
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

} // namespace
