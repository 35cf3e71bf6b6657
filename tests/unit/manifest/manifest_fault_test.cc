#include <vector>

#include "manifest_fixture.h"
#include "parse_and_depend.h"

namespace {

using FaultTest = ManifestFixture;

std::vector<std::string> Names(const std::vector<ApplicationManifest>& manifests)
{
    std::vector<std::string> names;
    for (const ApplicationManifest& manifest : manifests) {
        names.push_back(manifest.GetAppName());
    }
    return names;
}

struct BadValue {
    const char* lines;  // the keys of entry b, starting on line 5
    const char* where;  // expected position text of the error line
};

TEST_F(FaultTest, WrongTypeStopsAtTheEntryAndKeepsTheOnesBefore)
{
    const BadValue cases[] = {
        {"uid: abc", "line 5, entry 'b', key 'uid': expected an unsigned integer"},
        {"gid: 4294967296", "line 5, entry 'b', key 'gid'"},
        {"nice: 2147483648", "line 5, entry 'b', key 'nice': expected an integer"},
        {"reporting: maybe", "line 5, entry 'b', key 'reporting': expected true or false, got 'maybe'"},
        {"args: {a: b}", "line 5, entry 'b', key 'args': expected a list of strings, got a map"},
        {"args:\n      - x\n      - [y]", "line 7, entry 'b', key 'args': expected a string, got a sequence"},
        {"env:\n      A: {B: C}", "line 6, entry 'b', key 'env.A'"},
        {"core_affinity: [1, -2]", "line 5, entry 'b', key 'core_affinity'"},
        {"heartbeat:\n      interval: soon", "line 6, entry 'b', key 'heartbeat.interval'"},
        {"sharepool_groups:\n      - permission: rw", "line 6, entry 'b', key 'sharepool_groups.group'"},
        {"match: board", "line 5, entry 'b', key 'match'"},
        {"name: [b]", "line 5, key 'name'"},
    };
    for (const BadValue& bad : cases) {
        SCOPED_TRACE(bad.lines);
        Stavik::LogCapture::Begin();
        std::string path = Write("bad.yaml", std::string("apps:\n  - name: a\n    uid: 1\n  - name: b\n    ") +
                                                 bad.lines + "\n  - name: c\n");
        ParseAndDepend parser;
        std::vector<ApplicationManifest> out(1);
        EXPECT_NE(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, {}), 0);
        EXPECT_EQ(Names(out), (std::vector<std::string>{"", "a"}));
        EXPECT_EQ(LogCount(LOG_ERR, "Stavik: manifest " + path + " " + bad.where), 1u);
        EXPECT_EQ(LogTexts(LOG_ERR).size(), 1u);
    }
}

TEST_F(FaultTest, SyntaxErrorDeliversOnlyEntriesReadCompletely)
{
    struct Broken {
        std::string text;
        std::vector<std::string> delivered;
        const char* error;  // after the path, or the whole text when the path is not in it
    };
    const Broken files[] = {
        // An unclosed list in c: a and b lie wholly before the fault.
        {"apps:\n  - name: a\n  - name: b\n    uid: 2\n  - name: c\n    args: [x, y\n  - name: d\n", {"a", "b"},
         " line 7: YAML syntax error: "},
        // A mis-indented last key ends b early in the parser's eyes; b may have lost
        // that key, so it is held back with the fault.
        {"apps:\n  - name: a\n  - name: b\n    uid: 2\n   gid: 3\n", {"a"}, " line 5: YAML syntax error: "},
        {"apps: [\n", {}, " line 2: YAML syntax error: "},
        // An alias inside the node it names would make an endless entry.
        {"apps:\n  - &x\n    name: a\n    args: [*x]\n", {}, "alias refers to a node that encloses it"},
        // Refused long before the parser's own recursion would give up or run out of stack.
        {"apps:\n  - name: a\n  - name: b\n    args: " + std::string(100000, '['), {"a"},
         " line 4: YAML syntax error: nesting deeper than 100 levels"},
    };
    ParseAndDepend parser;
    for (const Broken& file : files) {
        SCOPED_TRACE(file.text.substr(0, 80));
        Stavik::LogCapture::Begin();
        std::string path = Write("broken.yaml", file.text);
        std::vector<ApplicationManifest> out;
        EXPECT_NE(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, {}), 0);
        EXPECT_EQ(Names(out), file.delivered);
        std::string error = file.error[0] == ' ' ? "Stavik: manifest " + path + file.error : file.error;
        EXPECT_EQ(LogCount(LOG_ERR, error), 1u);
        EXPECT_EQ(LogTexts(LOG_ERR).size(), 1u);
        if (out.size() == 2) {
            EXPECT_EQ(out[1].GetUid(), 2u);
        }
    }
}

TEST_F(FaultTest, UnusableFilesAndLayoutsGiveAnErrorLine)
{
    struct Layout {
        const char* text;
        const char* error;
        size_t delivered;
    };
    const Layout layouts[] = {
        {"", " line 1, key 'apps': the file must be a map with an 'apps' sequence", 0},
        {"- name: a\n", " line 1, key 'apps': the file must be a map with an 'apps' sequence", 0},
        {"services:\n  - name: a\n", " line 1, key 'apps': expected a sequence of entries, got no such key", 0},
        {"\napps:\n  name: a\n", " line 3, key 'apps': expected a sequence of entries, got a map", 0},
        {"apps:\n  - name: a\n  - just text\n", " line 3, key 'apps': expected a map for each entry", 1},
    };
    ParseAndDepend parser;
    for (const Layout& layout : layouts) {
        SCOPED_TRACE(layout.text);
        Stavik::LogCapture::Begin();
        std::string path = Write("layout.yaml", layout.text);
        std::vector<ApplicationManifest> out;
        EXPECT_NE(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, {}), 0);
        EXPECT_EQ(out.size(), layout.delivered);
        EXPECT_EQ(LogCount(LOG_ERR, "Stavik: manifest " + path + layout.error), 1u);
    }

    std::vector<ApplicationManifest> out;
    std::string missing = Dir() + "/missing.yaml";
    EXPECT_NE(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, missing, out, {}), 0);
    EXPECT_EQ(LogCount(LOG_ERR, "Stavik: manifest " + missing + ": cannot be read: cannot open: No such file"), 1u);
    EXPECT_TRUE(out.empty());
}

} // namespace
