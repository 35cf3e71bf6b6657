#include <set>

#include "channel/serialization.h"
#include "client/report_reader.h"
#include "client/request_packer.h"
#include "wire_test_support.h"

namespace Stavik {
namespace {

using Client::Dialect;
using Message::AppStateInfo;
using Message::RequestMsg;
using Message::RestartAppInfo;
using Message::StartAppInfo;
using Message::TermAppInfo;
using WireTest::Body;
using WireTest::Rendered;

class ClientRoundTripTest : public WireTest::LoggedTest {};

TEST_F(ClientRoundTripTest, StartAndRestartInBothDialects)
{
    std::string error;
    RequestMsg msg;
    ASSERT_TRUE(Client::PackStartRequest({{"appA", {}, {}}, {"appB", {"-v"}, {{2, {"x"}}}}}, Dialect::GENERAL, msg,
                                         error));
    EXPECT_EQ(msg.type, Message::START_APP);
    EXPECT_EQ(Body(msg), "2#appA#0#0#appB#1#-v#1#2#1#x#");

    // A slot without values doesn't come into being on the reading side.
    std::vector<StartAppInfo> apps = {
        {"appA", {}, {}},
        {"app with space", {"-v", "", "--x=1"}, {{0, {"/bin/app"}}, {1, {}}, {2, {"A=1", "B=2"}}}},
        {"", {"only"}, {}},
    };
    ASSERT_TRUE(Client::PackStartRequest(apps, Dialect::GENERAL, msg, error)) << error;
    std::vector<StartAppInfo> starts;
    Serialization::StavikUnpackStartRequest(msg, starts, "owner");
    EXPECT_EQ(Rendered(starts),
              (std::vector<std::string>{"appA:", "app with space:-v,,--x=1,:0=/bin/app,:2=A=1,B=2,", ":only,"}));

    std::vector<RestartAppInfo> zulApps;
    for (const StartAppInfo& app : apps) {
        zulApps.push_back({app.appName, app.argv, {}});
    }
    ASSERT_TRUE(Client::PackRestartRequest(zulApps, Client::DialectFor("zulmgr"), msg, error)) << error;
    EXPECT_EQ(msg.type, Message::RESTART_APP);
    std::vector<RestartAppInfo> restarts;
    Serialization::StavikUnpackRestartRequest(msg, restarts, "zulmgr");
    EXPECT_EQ(Rendered(restarts), (std::vector<std::string>{"appA:", "app with space:-v,,--x=1,", ":only,"}));
    ExpectNoLine();
}

TEST_F(ClientRoundTripTest, OtherRequestBodies)
{
    std::string error;
    RequestMsg msg;
    ASSERT_TRUE(Client::PackTermRequest({{"a"}, {""}, {"c d"}}, msg, error));
    std::vector<TermAppInfo> terms;
    Serialization::StavikUnpackTermRequest(msg, terms);
    ASSERT_EQ(terms.size(), 3u);
    EXPECT_EQ(terms[0].appName + "/" + terms[1].appName + "/" + terms[2].appName, "a//c d");

    ASSERT_TRUE(Client::PackBaseServiceStateRequest({3}, msg, error));
    EXPECT_EQ(Body(msg), "1#3#");
    Message::BaseServiceStateInfo state;
    Serialization::StavikUnpackedBaseServiceStateRequest(msg, state);
    EXPECT_EQ(state.state, 3u);

    ASSERT_TRUE(Client::PackAppExecRequest({"dp", 4294967295u, 7, 1}, msg, error));
    Message::AppExecInfo exec;
    Serialization::StavikUnpackedAppExecInfoRequest(msg, exec);
    EXPECT_EQ(exec.appName, "dp");
    EXPECT_EQ(exec.pid, 4294967295u);
    EXPECT_EQ(exec.gid, 7u);
    EXPECT_EQ(exec.state, 1u);

    Message::StartupCfgInfo cfg{{{"board", "x1"}, {"mode", ""}}, "/etc/startup.yaml"};
    ASSERT_TRUE(Client::PackStartupCfgRequest(Message::RELOAD_STARTUP_CFG, cfg, msg, error));
    EXPECT_EQ(msg.type, Message::RELOAD_STARTUP_CFG);
    Message::StartupCfgInfo read;
    Serialization::StavikUnpackMatchDataAndPathRequest(msg, read);
    EXPECT_EQ(read.path, cfg.path);
    EXPECT_EQ(read.matchData, cfg.matchData);

    const std::vector<std::string> names = {"appA", "", std::string(3000, 'q')};
    ASSERT_TRUE(Client::PackQueryAppStateRequest(names, msg, error));
    std::vector<std::string> queried;
    EXPECT_TRUE(Serialization::ReadQueryAppStateBody(msg, queried));
    EXPECT_EQ(queried, names);
    ExpectNoLine();
}

TEST_F(ClientRoundTripTest, PackersRefuseWhatTheDaemonWouldMisread)
{
    RequestMsg msg;
    memset(&msg, 0x11, sizeof(msg));
    const RequestMsg untouched = msg;
    std::string error;
    const std::vector<std::pair<std::string, bool>> refusals = {
        {"hash in a name", Client::PackTermRequest({{"a#b"}}, msg, error)},
        {"2000 entries", Client::PackTermRequest(std::vector<TermAppInfo>(2000), msg, error)},
        {"1025 arguments",
         Client::PackStartRequest({{"a", std::vector<std::string>(1025), {}}}, Dialect::GENERAL, msg, error)},
        {"negative slot", Client::PackStartRequest({{"a", {}, {{-1, {"x"}}}}}, Dialect::GENERAL, msg, error)},
        {"slot 3", Client::PackStartRequest({{"a", {}, {{3, {"x"}}}}}, Dialect::GENERAL, msg, error)},
        {"1025 values",
         Client::PackStartRequest({{"a", {}, {{0, std::vector<std::string>(1025)}}}}, Dialect::GENERAL, msg, error)},
        {"dynamic block to zulmgr", Client::PackStartRequest({{"a", {}, {{0, {"x"}}}}}, Dialect::ZUL_MGR, msg, error)},
        {"body of 3965 bytes", Client::PackTermRequest({{std::string(3962, 'n')}}, msg, error)},
        {"query of 3965 bytes", Client::PackQueryAppStateRequest({std::string(3957, 'n')}, msg, error)},
        {"wrong start-up type", Client::PackStartupCfgRequest(Message::START_APP, {}, msg, error)},
    };
    for (const auto& refusal : refusals) {
        SCOPED_TRACE(refusal.first);
        EXPECT_FALSE(refusal.second);
        EXPECT_EQ(memcmp(&msg, &untouched, sizeof(msg)), 0);
    }
    // The largest bodies that do fit.
    EXPECT_TRUE(Client::PackTermRequest({{std::string(3961, 'n')}}, msg, error));
    EXPECT_EQ(msg.size, sizeof(msg.data));
    EXPECT_TRUE(Client::PackQueryAppStateRequest({std::string(3956, 'n')}, msg, error));
    EXPECT_EQ(msg.size, sizeof(msg.data));
}

TEST_F(ClientRoundTripTest, LargeReportArrivesAsSeveralCompleteRecords)
{
    std::vector<AppStateInfo> sent;
    for (uint32_t i = 0; i < 600; ++i) {
        sent.push_back({"app" + std::to_string(i * 7919), i, i + 1, i % 6, i % 3});
    }
    std::vector<Serialization::PackedPiece> pieces;
    ASSERT_TRUE(Serialization::StavikPackAppStateRequest(sent, pieces));
    std::vector<RequestMsg> msgs;
    ASSERT_TRUE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
    ASSERT_GT(msgs.size(), 1u);

    std::vector<AppStateInfo> received;
    for (const RequestMsg& msg : msgs) {
        EXPECT_LE(msg.size, Message::SK_PIPE_BUF_MAX);
        std::vector<AppStateInfo> infos;
        std::string error;
        ASSERT_TRUE(Client::ReadAppStateReport(msg, infos, error)) << error;
        received.insert(received.end(), infos.begin(), infos.end());
    }
    auto texts = [](const std::vector<AppStateInfo>& infos) {
        std::set<std::string> all;
        for (const AppStateInfo& info : infos) {
            all.insert(info.appName + "/" + std::to_string(info.pid) + "/" + std::to_string(info.gid) + "/" +
                       std::to_string(info.state) + "/" + std::to_string(info.reason));
        }
        return all;
    };
    EXPECT_EQ(received.size(), sent.size());
    EXPECT_EQ(texts(received), texts(sent));
}

TEST_F(ClientRoundTripTest, DetailStatusRoundTripAndBadReports)
{
    const Message::AppDetailStatusMap sent = {{"a", Message::DETAIL_STATUS_ALIVE},
                                              {"", Message::DETAIL_STATUS_ABSENT},
                                              {"zz", Message::DETAIL_STATUS_STOPPED}};
    RequestMsg msg;
    ASSERT_TRUE(Serialization::WriteAppDetailStatusBody(sent, msg));
    Message::AppDetailStatusMap read;
    std::string error;
    ASSERT_TRUE(Client::ReadAppDetailStatus(msg, read, error)) << error;
    EXPECT_EQ(read, sent);

    EXPECT_FALSE(Client::ReadAppDetailStatus(WireTest::WithSize(msg, msg.size - 1), read, error));
    EXPECT_TRUE(read.empty());
    EXPECT_FALSE(Client::ReadAppDetailStatus(WireTest::WithSize(msg, UINT64_MAX), read, error));

    using WireTest::TextRecord;
    const std::vector<RequestMsg> badReports = {
        TextRecord(Message::REPORT_APP_STATE, "2#a#1#2#3#4#"),
        TextRecord(Message::REPORT_APP_STATE, "1#a#1#2#-3#4#"),
        TextRecord(Message::REPORT_APP_STATE, "1#a#1#2#4294967296#4#"),
        TextRecord(Message::REPORT_APP_STATE, "1#a#1#2#3#4#extra"),
        TextRecord(Message::REPORT_APP_DETAIL_STATUS, "1#a#1#2#3#4#"),
        // A record whose copy the daemon refused: size set, data all zeros.
        TextRecord(Message::REPORT_APP_STATE, std::string(3965, '\0')),
    };
    for (const RequestMsg& bad : badReports) {
        std::vector<AppStateInfo> infos = {{"stale", 0, 0, 0, 0}};
        EXPECT_FALSE(Client::ReadAppStateReport(bad, infos, error)) << Body(bad);
        EXPECT_TRUE(infos.empty());
    }
}

} // namespace
} // namespace Stavik
