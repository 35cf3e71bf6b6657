// The values and refusals of requests are checked through the real daemon in
// tests/e2e/control; these are the edges it can't tell apart.
#include <gtest/gtest.h>

#include <climits>

#include "app/app_info.h"

namespace Stavik {
namespace App {
namespace {

using Env = std::map<std::string, std::string>;

ManifestData DynamicManifest()
{
    ManifestData data;
    data.isDynamicPara = true;
    data.binPath = "${/opt/bin/*}";
    data.arguments = {"-c", "${*}"};
    data.env = {{"A", "${[a-z]*}"}, {"B", "lit"}};
    data.vfIdPattern = "${[0-9]*}";
    data.vfId = 3;
    return data;
}

TEST(DynamicPara, FixedManifestsIgnoreValuesAndAnUpdateStopsAtTheFirstRefusal)
{
    ManifestData data = DynamicManifest();
    data.isDynamicPara = false;
    GeneralAppInfo fixed("dyn_1", ApplicationManifest(data), "zulmgr");
    EXPECT_TRUE(fixed.UpdateDynamicPara({"-x"}, {{0, {"/opt/bin/a", "/b"}}, {1, {"zz"}}, {2, {"=bad"}}}));
    EXPECT_EQ(fixed.execPath_, data.binPath);
    EXPECT_EQ(fixed.arguments_, data.arguments);
    EXPECT_EQ(fixed.env_, data.env);
    EXPECT_EQ(fixed.vfId_, 3);

    GeneralAppInfo app("dyn_1", ApplicationManifest(DynamicManifest()), "zulmgr");
    EXPECT_FALSE(app.UpdateDynamicPara({"-x", "y"}, {{0, {"/opt/bin/a"}}, {1, {"bad"}}, {2, {"A=abc"}}}));
    EXPECT_EQ(app.arguments_, (std::vector<std::string>{"-x", "y"}));
    EXPECT_EQ(app.execPath_, "/opt/bin/a");
    EXPECT_EQ(app.env_, DynamicManifest().env);
    EXPECT_FALSE(app.UpdateExecvPath({""}));

    // No vfid is the default; a number beyond int32 or with a tail is none.
    const std::pair<std::vector<std::string>, int32_t> vfIds[] = {
        {{}, -1}, {{"2147483647", "x"}, INT32_MAX}, {{"2147483648", "x"}, -1}, {{"7a", "x"}, -1}};
    for (const auto& [values, vfId] : vfIds) {
        EXPECT_TRUE(app.UpdateVfId(values));
        EXPECT_EQ(app.vfId_, vfId) << (values.empty() ? "none" : values[0]);
    }
    // An empty list leaves only the fixed variables; a later value of a key wins.
    EXPECT_TRUE(app.UpdateEnv({}));
    EXPECT_EQ(app.env_, (Env{{"B", "lit"}}));
    EXPECT_TRUE(app.UpdateEnv({"A=abc", "A=def"}));
    EXPECT_EQ(app.env_, (Env{{"A", "def"}, {"B", "lit"}}));
}

} // namespace
} // namespace App
} // namespace Stavik
