#include <gtest/gtest.h>

#include <climits>

#include "app/app_info.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ScopedLogCapture;
using Env = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

ManifestData DynamicManifest()
{
    ManifestData data;
    data.isDynamicPara = true;
    data.binPath = "${/opt/bin/*}";
    data.arguments = {"-c", "${*}"};
    data.env = {{"A", "${[a-z]*}"}, {"B", "lit"}, {"C", "${*}"}};
    data.vfIdPattern = "${[0-9]*}";
    data.vfId = 3;
    return data;
}

GeneralAppInfo DynamicApp(const ManifestData& data = DynamicManifest())
{
    return GeneralAppInfo("dyn_1", ApplicationManifest(data), "zulmgr");
}

TEST(DynamicPara, OnlyDynamicManifestsTakeRequestValues)
{
    GeneralAppInfo app = DynamicApp();
    EXPECT_TRUE(app.isDynamicExecPath_ && app.isDynamicArgs_ && app.isDynamicEnv_ && app.isDynamicVfId_);
    EXPECT_EQ(app.argPatterns_, DynamicManifest().arguments);
    EXPECT_EQ(app.envPatterns_, DynamicManifest().env);

    ManifestData data = DynamicManifest();
    data.isDynamicPara = false;
    GeneralAppInfo fixed = DynamicApp(data);
    EXPECT_FALSE(fixed.isDynamicExecPath_ || fixed.isDynamicArgs_ || fixed.isDynamicEnv_ || fixed.isDynamicVfId_);
    EXPECT_TRUE(fixed.UpdateDynamicPara({"-x"}, {{0, {"/opt/bin/a", "/b"}}, {1, {"zz"}}, {2, {"=bad"}}}));
    EXPECT_EQ(fixed.execPath_, data.binPath);
    EXPECT_EQ(fixed.arguments_, data.arguments);
    EXPECT_EQ(fixed.env_, data.env);
    EXPECT_EQ(fixed.vfId_, 3);
}

// A path or vfid off its pattern, two paths, and the accepted values are
// checked through the real daemon in tests/e2e/control.
TEST(DynamicPara, ExecPathAndVfIdEdges)
{
    GeneralAppInfo app = DynamicApp();
    ScopedLogCapture capture;
    EXPECT_FALSE(app.UpdateExecvPath({""}));
    EXPECT_EQ(LevelOf("STAVIK : dynamic execPath invalid, is empty"), LOG_ERR);
    EXPECT_EQ(app.execPath_, "${/opt/bin/*}");

    EXPECT_TRUE(app.UpdateVfId({}));
    EXPECT_EQ(app.vfId_, -1);
    EXPECT_EQ(LevelOf("STAVIK : dynamic vfid vector size invalid, use default value"), LOG_WARNING);
    const std::pair<const char*, int32_t> parses[] = {{"2147483647", INT32_MAX}, {"2147483648", -1}, {"7a", -1}};
    for (const auto& [text, value] : parses) {
        EXPECT_TRUE(app.UpdateVfId({text, "x"}));
        EXPECT_EQ(app.vfId_, value) << text;
    }
}

TEST(DynamicPara, Env)
{
    for (const char* entry : {"A=", "=B", "A"}) {
        GeneralAppInfo app = DynamicApp();
        ScopedLogCapture capture;
        EXPECT_FALSE(app.UpdateEnv({entry})) << entry;
        EXPECT_EQ(LevelOf(std::string("STAVIK : dynamic env invalid, ") + entry), LOG_ERR) << entry;
    }

    GeneralAppInfo app = DynamicApp();
    EXPECT_TRUE(app.UpdateEnv({}));
    EXPECT_EQ(app.env_, (Env{{"B", "lit"}}));

    ScopedLogCapture capture;
    EXPECT_TRUE(app.UpdateEnv({"Z=1", "C=x", "A=abc", "A=def"}));
    EXPECT_EQ(LevelOf("STAVIK : dynamic env key not in yaml cfg, Z=1, ignore it"), LOG_WARNING);
    EXPECT_EQ(app.env_, (Env{{"A", "def"}, {"B", "lit"}, {"C", "x"}}));
    EXPECT_EQ(LevelOf("STAVIK : UpdateEnv dynamic appName=dyn_1, env=B=lit C=x A=abc A=def "), LOG_INFO);

    EXPECT_FALSE(app.UpdateEnv({"C=ok", "A=ABC"}));
    EXPECT_EQ(LevelOf("STAVIK : dynamic env value invalid, key=A, pattern=${[a-z]*}, env=A=ABC"), LOG_ERR);
    EXPECT_EQ(app.env_, (Env{{"B", "lit"}, {"C", "ok"}}));
}

TEST(DynamicPara, UpdateStopsAtTheFirstRefusal)
{
    GeneralAppInfo app = DynamicApp();
    EXPECT_FALSE(app.UpdateDynamicPara({"-x", "y"}, {{0, {"/opt/bin/a"}}, {1, {"bad"}}, {2, {"A=abc"}}}));
    EXPECT_EQ(app.arguments_, (Strings{"-x", "y"}));
    EXPECT_EQ(app.execPath_, "/opt/bin/a");
    EXPECT_EQ(app.env_, DynamicManifest().env);

    GeneralAppInfo complete = DynamicApp();
    EXPECT_TRUE(complete.UpdateDynamicPara({}, {{0, {"/opt/bin/a"}}, {1, {"5"}}, {2, {"A=abc"}}}));
    EXPECT_EQ(complete.vfId_, 5);
    EXPECT_EQ(complete.env_, (Env{{"A", "abc"}, {"B", "lit"}}));
}

} // namespace
} // namespace App
} // namespace Stavik
