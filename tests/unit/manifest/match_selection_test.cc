#include <vector>

#include "manifest_fixture.h"
#include "parse_and_depend.h"

namespace {

using MatchTest = ManifestFixture;

TEST_F(MatchTest, EntryPairsMustAllAppearWithEqualValues)
{
    std::string path = Write("match.yaml", R"(apps:
  - name: common
  - name: evb_only
    match: {board: evb}
  - name: evb_rev2
    match: {board: evb, rev: 2}
  - name: other
    match: {board: other}
)");
    struct Selection {
        std::map<std::string, std::string> matchArgs;
        std::vector<std::string> kept;
    };
    const Selection selections[] = {
        {{}, {"common", "evb_only", "evb_rev2", "other"}},
        {{{"board", "evb"}}, {"common", "evb_only"}},
        {{{"board", "evb"}, {"rev", "2"}, {"extra", "x"}}, {"common", "evb_only", "evb_rev2"}},
        {{{"board", "EVB"}}, {"common"}},
        {{{"rev", "2"}}, {"common"}},
    };
    ParseAndDepend parser;
    for (const Selection& selection : selections) {
        std::vector<ApplicationManifest> out;
        ASSERT_EQ(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, selection.matchArgs), 0);
        std::vector<std::string> names;
        for (const ApplicationManifest& manifest : out) {
            names.push_back(manifest.GetAppName());
        }
        EXPECT_EQ(names, selection.kept);
    }
}

} // namespace
