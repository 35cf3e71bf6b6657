#include <sstream>

#include "channel/serialization.h"
#include "wire_test_support.h"

namespace Stavik {
namespace {

using Message::DynamicParaMap;
using Message::RestartAppInfo;
using Message::StartAppInfo;
using Message::TermAppInfo;
using WireTest::TextRecord;

const std::string EXAMPLE_BODY = "2#appA#0#0#appB#1#-v#1#2#1#x#";

class UnpackTest : public WireTest::LoggedTest {};

std::vector<StartAppInfo> UnpackStart(const std::string& body, const std::string& owner)
{
    std::vector<StartAppInfo> apps;
    Serialization::StavikUnpackStartRequest(TextRecord(Message::START_APP, body), apps, owner);
    return apps;
}

std::vector<std::string> Names(const std::vector<StartAppInfo>& apps)
{
    std::vector<std::string> names;
    for (const StartAppInfo& app : apps) {
        names.push_back(app.appName);
    }
    return names;
}

TEST_F(UnpackTest, ExampleBodyOfAnOwnerOtherThanZulmgr)
{
    std::vector<StartAppInfo> apps = UnpackStart(EXAMPLE_BODY, "owner");
    ASSERT_EQ(apps.size(), 2u);
    EXPECT_EQ(apps[0].appName, "appA");
    EXPECT_TRUE(apps[0].argv.empty());
    EXPECT_TRUE(apps[0].dynamicPara.empty());
    EXPECT_EQ(apps[1].appName, "appB");
    EXPECT_EQ(apps[1].argv, std::vector<std::string>{"-v"});
    EXPECT_EQ(apps[1].dynamicPara, (DynamicParaMap{{2, {"x"}}}));

    std::vector<RestartAppInfo> restarts;
    Serialization::StavikUnpackRestartRequest(TextRecord(Message::RESTART_APP, EXAMPLE_BODY), restarts, "owner");
    ASSERT_EQ(restarts.size(), 2u);
    EXPECT_EQ(restarts[1].dynamicPara, (DynamicParaMap{{2, {"x"}}}));
    ExpectNoLine();
}

TEST_F(UnpackTest, DialectFollowsTheOwnerName)
{
    const std::string zulBody = "2#appA#0#appB#1#-v#";
    std::vector<StartAppInfo> apps = UnpackStart(zulBody, "zulmgr");
    EXPECT_EQ(Names(apps), (std::vector<std::string>{"appA", "appB"}));
    EXPECT_EQ(apps[1].argv, std::vector<std::string>{"-v"});

    // Another owner takes "appB" for the size of the dynamic block: the stream
    // fails and the second entry stays empty.
    apps = UnpackStart(zulBody, "owner");
    EXPECT_EQ(Names(apps), (std::vector<std::string>{"appA", ""}));

    // And "zulmgr" reads the example body's dynamic block size as the next name.
    apps = UnpackStart(EXAMPLE_BODY, "zulmgr");
    EXPECT_EQ(Names(apps), (std::vector<std::string>{"appA", "0"}));
    EXPECT_TRUE(apps[1].argv.empty());
    ExpectNoLine();
}

TEST_F(UnpackTest, EntryCountLimits)
{
    EXPECT_TRUE(UnpackStart("2000#a#0#0#", "owner").empty());
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster UnpackStartRequest err: big startAppListSize=2000");

    std::vector<RestartAppInfo> restarts;
    Serialization::StavikUnpackRestartRequest(TextRecord(Message::RESTART_APP, "4294967295#"), restarts, "owner");
    EXPECT_TRUE(restarts.empty());
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster UnpackRestartRequest err: big restartAppListSize=4294967295");

    std::vector<TermAppInfo> terms;
    Serialization::StavikUnpackTermRequest(TextRecord(Message::TERM_APP, "2000#a#"), terms);
    EXPECT_TRUE(terms.empty());
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster UnpackTermRequest err: big AppListSize=2000");

    // A space inside a name survives and an empty name is legal.
    Serialization::StavikUnpackTermRequest(TextRecord(Message::TERM_APP, "1999#a b##c#"), terms);
    ASSERT_EQ(terms.size(), 1999u);
    EXPECT_EQ(terms[0].appName, "a b");
    EXPECT_EQ(terms[1].appName, "");
    EXPECT_EQ(terms[2].appName, "c");
    EXPECT_EQ(terms[1998].appName, "");
    ExpectNoLine();
}

TEST_F(UnpackTest, OversizeArgvSkipsToTheNextEntryWhereTheStreamStands)
{
    std::vector<StartAppInfo> apps = UnpackStart("2#a#1025#b#0#0#", "owner");
    EXPECT_EQ(Names(apps), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(apps[0].argv.empty());
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster : UnpackStartRequest err, argvSize=1025");

    std::vector<RestartAppInfo> restarts;
    Serialization::StavikUnpackRestartRequest(TextRecord(Message::RESTART_APP, "1#a#1025#"), restarts, "zulmgr");
    ASSERT_EQ(restarts.size(), 1u);
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster : UnpackRestartRequest err, argvSize=1025");
}

TEST_F(UnpackTest, DynamicParaBounds)
{
    DynamicParaMap para{{1, {"stale"}}};
    std::istringstream negative("3#-1#1#neg#2#2#x#y#1#0#");
    EXPECT_TRUE(Serialization::UnPackDynamicPara(negative, para));
    // A group of no values creates no slot, and a negative index is a slot of its own.
    EXPECT_EQ(para, (DynamicParaMap{{-1, {"neg"}}, {2, {"x", "y"}}}));

    std::istringstream repeated("2#0#1#a#0#1#b#");
    EXPECT_TRUE(Serialization::UnPackDynamicPara(repeated, para));
    EXPECT_EQ(para, (DynamicParaMap{{0, {"a", "b"}}}));
    ExpectNoLine();

    std::istringstream badIndex("1#3#1#x#");
    EXPECT_FALSE(Serialization::UnPackDynamicPara(badIndex, para));
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicPara index=3 invalid");

    std::istringstream badSize("4#");
    EXPECT_FALSE(Serialization::UnPackDynamicPara(badSize, para));
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicParaSize=4 invalid");

    std::istringstream badValueNum("1#-2#1025#");
    EXPECT_FALSE(Serialization::UnPackDynamicPara(badValueNum, para));
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicPara index=-2, valueNum=1025 invalid");
}

TEST_F(UnpackTest, BadDynamicBlockStopsTheUnpackWithEmptyNamesBehind)
{
    std::vector<StartAppInfo> apps = UnpackStart("3#a#0#1#3#1#x#b#0#0#c#0#0#", "owner");
    EXPECT_EQ(Names(apps), (std::vector<std::string>{"a", "", ""}));
    ExpectOneLine(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicPara index=3 invalid");
}

TEST_F(UnpackTest, SingleRecordBodies)
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
    ExpectNoLine();
}

TEST_F(UnpackTest, MatchDataAndPath)
{
    Message::StartupCfgInfo info;
    Serialization::StavikUnpackMatchDataAndPathRequest(TextRecord(Message::LOAD_STARTUP_CFG, "1#/etc/x.yaml#0#k#v#"),
                                                       info);
    EXPECT_EQ(info.path, "/etc/x.yaml");
    EXPECT_TRUE(info.matchData.empty());

    info = {};
    Serialization::StavikUnpackMatchDataAndPathRequest(
        TextRecord(Message::RELOAD_STARTUP_CFG, "1#/p#102400#k#v#"), info);
    EXPECT_EQ(info.path, "/p");
    EXPECT_TRUE(info.matchData.empty());

    info = {};
    Serialization::StavikUnpackMatchDataAndPathRequest(
        TextRecord(Message::LOAD_STARTUP_CFG, "1#/p#3#k#v1#k#v2#j#w#"), info);
    EXPECT_EQ(info.matchData, (std::map<std::string, std::string>{{"k", "v1"}, {"j", "w"}}));
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
