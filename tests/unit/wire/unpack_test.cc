#include <sstream>
#include <tuple>

#include "channel/serialization.h"
#include "wire_test_support.h"

namespace Stavik {
namespace {

using Message::DynamicParaMap;
using Message::RestartAppInfo;
using Message::StartAppInfo;
using Message::TermAppInfo;
using WireTest::Rendered;
using WireTest::TextRecord;

class UnpackTest : public WireTest::LoggedTest {};

std::string Repeated(const std::string& text, size_t times)
{
    std::string all;
    for (size_t i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

// The entries of a start, restart or term body as the given owner sent it.
std::vector<std::string> Unpacked(uint32_t type, const std::string& body, const std::string& owner)
{
    if (type == Message::START_APP) {
        std::vector<StartAppInfo> starts;
        Serialization::StavikUnpackStartRequest(TextRecord(type, body), starts, owner);
        return Rendered(starts);
    }
    if (type == Message::RESTART_APP) {
        std::vector<RestartAppInfo> restarts;
        Serialization::StavikUnpackRestartRequest(TextRecord(type, body), restarts, owner);
        return Rendered(restarts);
    }
    std::vector<TermAppInfo> terms;
    Serialization::StavikUnpackTermRequest(TextRecord(type, body), terms);
    std::vector<std::string> names;
    for (const TermAppInfo& term : terms) {
        names.push_back(term.appName);
    }
    return names;
}

TEST_F(UnpackTest, ListBodiesByDialectWithTheirLimits)
{
    const std::string example = "2#appA#0#0#appB#1#-v#1#2#1#x#";
    const std::string zulBody = "2#appA#0#appB#1#-v#";
    struct Row {
        uint32_t type;
        const char* owner;
        std::string body;
        std::vector<std::string> entries;
        std::string error;  // the one error line after the master's prefix, or none
    };
    const Row rows[] = {
        {Message::START_APP, "owner", example, {"appA:", "appB:-v,:2=x,"}, ""},
        {Message::RESTART_APP, "owner", example, {"appA:", "appB:-v,:2=x,"}, ""},
        {Message::START_APP, "zulmgr", zulBody, {"appA:", "appB:-v,"}, ""},
        // Another owner takes "appB" for the size of the dynamic block: the
        // stream fails and the second entry stays empty.
        {Message::START_APP, "owner", zulBody, {"appA:", ":"}, ""},
        // And "zulmgr" reads the example's dynamic block size as the next name.
        {Message::START_APP, "zulmgr", example, {"appA:", "0:"}, ""},
        {Message::START_APP, "owner", "2000#a#0#0#", {}, "UnpackStartRequest err: big startAppListSize=2000"},
        {Message::RESTART_APP, "owner", "4294967295#", {},
         "UnpackRestartRequest err: big restartAppListSize=4294967295"},
        {Message::TERM_APP, "owner", "2000#a#", {}, "UnpackTermRequest err: big AppListSize=2000"},
        // An oversize argv skips to the next entry where the stream stands.
        {Message::START_APP, "owner", "2#a#1025#b#0#0#", {"a:", "b:"}, ": UnpackStartRequest err, argvSize=1025"},
        {Message::RESTART_APP, "zulmgr", "1#a#1025#", {"a:"}, ": UnpackRestartRequest err, argvSize=1025"},
        {Message::RESTART_APP, "zulmgr", "1#a#1024#" + Repeated("x#", 1024), {"a:" + Repeated("x,", 1024)}, ""},
        // A bad dynamic block stops the unpack with empty entries behind.
        {Message::START_APP, "owner", "3#a#0#1#3#1#x#b#0#0#c#0#0#", {"a:", ":", ":"},
         "unpack request failed, dynamicPara index=3 invalid"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.owner) + " " + row.body);
        EXPECT_EQ(Unpacked(row.type, row.body, row.owner), row.entries);
        if (row.error.empty()) {
            ExpectNoLine();
        } else {
            ExpectOneLine(LOG_ERR, "Stavik : StavikMaster " + row.error);
        }
    }

    // A space inside a name survives and an empty name is legal, up to 1999 entries.
    std::vector<std::string> terms = Unpacked(Message::TERM_APP, "1999#a b##c#", "owner");
    ASSERT_EQ(terms.size(), 1999u);
    EXPECT_EQ(std::vector<std::string>(terms.begin(), terms.begin() + 3), (std::vector<std::string>{"a b", "", "c"}));
    EXPECT_EQ(terms[1998], "");
    ExpectNoLine();
}

TEST_F(UnpackTest, DynamicParaBounds)
{
    DynamicParaMap para{{1, {"stale"}}};
    std::istringstream negative("3#-1#1#neg#2#2#x#y#1#0#");
    EXPECT_TRUE(Serialization::UnPackDynamicPara(negative, para));
    // A group of no values creates no slot, and a negative index is a slot of its own.
    EXPECT_EQ(para, (DynamicParaMap{{-1, {"neg"}}, {2, {"x", "y"}}}));

    std::istringstream most("1#0#1024#" + Repeated("v#", 1024));
    EXPECT_TRUE(Serialization::UnPackDynamicPara(most, para));
    EXPECT_EQ(para, (DynamicParaMap{{0, std::vector<std::string>(1024, "v")}}));

    std::istringstream repeated("2#0#1#a#0#1#b#");
    EXPECT_TRUE(Serialization::UnPackDynamicPara(repeated, para));
    EXPECT_EQ(para, (DynamicParaMap{{0, {"a", "b"}}}));
    ExpectNoLine();

    const std::pair<const char*, const char*> bad[] = {
        {"1#3#1#x#", "dynamicPara index=3 invalid"},
        {"4#", "dynamicParaSize=4 invalid"},
        {"1#-2#1025#", "dynamicPara index=-2, valueNum=1025 invalid"},
    };
    for (const auto& [text, error] : bad) {
        std::istringstream in(text);
        EXPECT_FALSE(Serialization::UnPackDynamicPara(in, para)) << text;
        ExpectOneLine(LOG_ERR, std::string("Stavik : StavikMaster unpack request failed, ") + error);
    }
}

TEST_F(UnpackTest, SingleRecordBodiesAndMatchData)
{
    Message::BaseServiceStateInfo state;
    // Blanks before a number are skipped and any character separates.
    Serialization::StavikUnpackedBaseServiceStateRequest(TextRecord(Message::BASESERVICE_STATE_REPORT, "1# 3;"),
                                                         state);
    EXPECT_EQ(state.state, 3u);

    // A malformed gid reads as 0 and leaves the state as it was.
    Message::AppExecInfo exec{"old", 1, 1, 9};
    Serialization::StavikUnpackedAppExecInfoRequest(TextRecord(Message::APP_EXECUTION_REPORT, "1#app#12#zz#1#"),
                                                    exec);
    EXPECT_EQ(exec.appName, "app");
    EXPECT_EQ(exec.pid, 12u);
    EXPECT_EQ(exec.gid, 0u);
    EXPECT_EQ(exec.state, 9u);

    // A count of 0 or of 102400 pairs reads none; a repeated key keeps its
    // first value; pairs the body lacks read as one empty pair.
    const std::tuple<uint32_t, const char*, const char*, std::map<std::string, std::string>> rows[] = {
        {Message::LOAD_STARTUP_CFG, "1#/etc/x.yaml#0#k#v#", "/etc/x.yaml", {}},
        {Message::RELOAD_STARTUP_CFG, "1#/p#102400#k#v#", "/p", {}},
        {Message::RELOAD_STARTUP_CFG, "1#/p#102399#k#v#", "/p", {{"k", "v"}, {"", ""}}},
        {Message::LOAD_STARTUP_CFG, "1#/p#3#k#v1#k#v2#j#w#", "/p", {{"k", "v1"}, {"j", "w"}}},
    };
    for (const auto& [type, body, path, matchData] : rows) {
        Message::StartupCfgInfo info;
        Serialization::StavikUnpackMatchDataAndPathRequest(TextRecord(type, body), info);
        EXPECT_EQ(info.path, path) << body;
        EXPECT_EQ(info.matchData, matchData) << body;
    }
    ExpectNoLine();
}

TEST_F(UnpackTest, SizeIsTakenAsItStandsButNeverPastTheData)
{
    Message::RequestMsg msg = TextRecord(Message::TERM_APP, "2#name#name2#");
    msg.size = 7;
    std::vector<TermAppInfo> terms;
    Serialization::StavikUnpackTermRequest(msg, terms);
    ASSERT_EQ(terms.size(), 2u);
    EXPECT_EQ(terms[0].appName, "name");
    EXPECT_EQ(terms[1].appName, "");

    memset(msg.data, 'a', sizeof(msg.data));
    memcpy(msg.data, "1#", 2);
    msg.size = UINT64_MAX;
    Serialization::StavikUnpackTermRequest(msg, terms);
    ASSERT_EQ(terms.size(), 1u);
    EXPECT_EQ(terms[0].appName, std::string(sizeof(msg.data) - 2, 'a'));
}

} // namespace
} // namespace Stavik
