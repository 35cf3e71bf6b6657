// Request values taken into a record with dynamic parameters.
#include <gtest/gtest.h>

#include <climits>

#include "app/app_info.h"

namespace Stavik {
namespace App {
namespace {

using Env = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

TEST(DynamicRequest, FixedManifestsIgnoreTheRequestUpdatesStopAtTheFirstRefusalAndVfIdsStayWithinInt32)
{
    ManifestData data;
    data.isDynamicPara = true;
    data.binPath = "${/opt/bin/*}";
    data.arguments = {"-c", "${*}"};
    data.env = {{"A", "${[a-z]*}"}, {"B", "lit"}};
    data.vfIdPattern = "${[0-9]*}";
    data.vfId = 3;
    const Env literalOnly = {{"B", "lit"}};
    struct Case {
        bool isDynamic;
        Strings arguments;
        DynamicParaMap parameters;
        bool result;
        std::string execPath;
        Strings argumentsAfter;
        int32_t vfId;
        Env env;
    };
    const Case cases[] = {
        {false, {"-x"}, {{0, {"/opt/bin/a", "/b"}}, {1, {"zz"}}, {2, {"=bad"}}}, true, data.binPath, data.arguments,
         3, data.env},
        // Path, then vfid, then environment; what came before a refusal stays.
        {true, {"-x", "y"}, {{0, {""}}, {1, {"5"}}}, false, data.binPath, {"-x", "y"}, 3, data.env},
        {true, {"-x"}, {{0, {"/opt/bin/a"}}, {1, {"bad"}}, {2, {"A=abc"}}}, false, "/opt/bin/a", {"-x"}, 3, data.env},
        {true, {}, {{0, {"/opt/bin/a"}}, {1, {"5"}}, {2, {"A=ABC"}}}, false, "/opt/bin/a", {}, 5, literalOnly},
        {true, {}, {{0, {"/opt/bin/a"}}, {1, {"5"}}, {2, {"A=abc"}}}, true, "/opt/bin/a", {}, 5,
         {{"A", "abc"}, {"B", "lit"}}},
        {true, {}, {{0, {"/opt/bin/a"}}}, true, "/opt/bin/a", {}, -1, literalOnly},
        {true, {}, {{0, {"/opt/bin/a"}}, {1, {"2147483647", "x"}}}, true, "/opt/bin/a", {}, INT32_MAX, literalOnly},
        {true, {}, {{0, {"/opt/bin/a"}}, {1, {"2147483648"}}}, true, "/opt/bin/a", {}, -1, literalOnly},
        {true, {}, {{0, {"/opt/bin/a"}}, {1, {"7a"}}}, true, "/opt/bin/a", {}, -1, literalOnly},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        SCOPED_TRACE(i);
        const Case& c = cases[i];
        data.isDynamicPara = c.isDynamic;
        GeneralAppInfo app("dyn_1", ApplicationManifest(data), "zulmgr");
        EXPECT_EQ(c.result, app.UpdateDynamicPara(c.arguments, c.parameters));
        EXPECT_EQ(c.execPath, app.execPath_);
        EXPECT_EQ(c.argumentsAfter, app.arguments_);
        EXPECT_EQ(c.vfId, app.vfId_);
        EXPECT_EQ(c.env, app.env_);
    }
}

} // namespace
} // namespace App
} // namespace Stavik
