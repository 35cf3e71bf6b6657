// What a record takes from its manifest and from the values of a request; a
// reload's update is checked in tests/unit/control.
#include <gtest/gtest.h>

#include <climits>

#include "app/app_info.h"
#include "app_test_util.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ScopedLogCapture;

TEST(AppRecord, RtPriorityAndTheCoreSentinel)
{
    struct Case {
        const char* prio;
        const char* type;
        std::vector<uint32_t> cores;
        int policy;
        int32_t rtPrio;
        bool rtLimit;
        const char* line;
    };
    const Case cases[] = {
        {"", "SCHED_FIFO", {}, SK_SCHED_UNCHANGED, -1, false, ""},
        {"false", "SCHED_FIFO", {}, SK_SCHED_UNCHANGED, -1, false, ""},
        {"100", "SCHED_FIFO", {}, SK_SCHED_UNCHANGED, -1, false, ""},
        {"0", "SCHED_RR", {}, SK_SCHED_UNCHANGED, -1, false, ""},
        {"50", "SCHED_OTHER", {}, SK_SCHED_UNCHANGED, -1, false, ""},
        {"5x", "SCHED_FIFO", {}, SK_SCHED_UNCHANGED, -1, false, "STAVIK : rtapp, set_rt_prio has invalid char=5x"},
        {"true", "SCHED_FIFO", {}, SK_SCHED_UNCHANGED, -1, true, ""},
        {"99", "SCHED_FIFO", {}, SK_SCHED_FIFO, 99, true, "STAVIK : rtapp, rtPrio=99, rtPolicy=SCHED_FIFO"},
        {"50", "SCHED_RR", {}, SK_SCHED_RR, 50, true, "STAVIK : rtapp, rtPrio=50, rtPolicy=SCHED_RR"},
        // Core 255 first asks for FIFO 99 and binds nowhere.
        {"10", "SCHED_RR", {255, 1, 2}, SK_SCHED_FIFO, 99, true, "STAVIK : rtapp, update schedPolicy to SCHED_FIFO"},
        {"", "", {1, 255}, SK_SCHED_UNCHANGED, -1, false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.prio) + "/" + c.type + "/" + std::to_string(c.cores.size()));
        ManifestData data;
        data.setRtPrio = c.prio;
        data.setRtType = c.type;
        data.coreAffinity = c.cores;
        data.isDelayCoreAffinity = true;
        ScopedLogCapture capture;
        AppInfo app(ApplicationManifest(data), "rtapp", "");
        EXPECT_EQ(app.schedPolicy_, c.policy);
        EXPECT_EQ(app.rtPrio_, c.rtPrio);
        EXPECT_EQ(app.needRtLimit_, c.rtLimit);
        bool sentinel = !c.cores.empty() && c.cores[0] == 255;
        EXPECT_EQ(app.coreAffinity_.size(), sentinel ? 0u : c.cores.size());
        EXPECT_EQ(app.isDelayCoreAffinity_, !sentinel && !c.cores.empty());
        EXPECT_EQ(LogCapture::Lines().empty(), *c.line == '\0');
        EXPECT_TRUE(*c.line == '\0' || LevelOf(c.line) == LOG_INFO);
    }
}

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
