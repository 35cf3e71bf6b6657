// Transport checks of an owner's record, dispatch by type, the answers that
// only the in-process handlers show, priority applications at boot and
// start-up files loaded on request.
#include <algorithm>
#include <tuple>

#include "client/request_packer.h"
#include "tests/unit/control/control_fixture.h"

namespace Stavik {
namespace ControlTest {
namespace {

class RequestHandler : public ControlSteps {
protected:
    void Deliver(const Message::RequestMsg& msg, uint32_t size = sizeof(Message::RequestMsg), int32_t fd = 5)
    {
        TubixRequest req{7, &msg, size};
        daemon_->RequestMsgHandler(fd, &req, "ownerA");
    }

    static Message::RequestMsg StartRecord(const std::string& name)
    {
        Message::RequestMsg msg{};
        std::string error;
        EXPECT_TRUE(Client::PackStartRequest({{name, {}, {}}}, Client::Dialect::GENERAL, msg, error)) << error;
        return msg;
    }
};

TEST_F(RequestHandler, BadTransportMessagesAreLoggedAndChangeNothing)
{
    Store({Probe("a")});
    Message::RequestMsg msg = StartRecord("a");
    TubixRequest req{7, &msg, sizeof(msg)};

    daemon_->RequestMsgHandler(0, &req, "ownerA");
    daemon_->RequestMsgHandler(5, nullptr, "ownerA");
    Deliver(msg, 3968);
    TubixRequest noData{7, nullptr, sizeof(msg)};
    daemon_->RequestMsgHandler(5, &noData, "ownerA");

    std::vector<CapturedLine> lines = LogCapture::Lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("STAVIK : RequestMsgHandler failed: invalid fd=0", lines[0].text);
    EXPECT_EQ("STAVIK : fd=5, owner=ownerA exit", lines[1].text);
    EXPECT_EQ("STAVIK : RequestMsgHandler size=3968 bytes is not illegal ,struct of message size=3984 bytes",
              lines[2].text);
    EXPECT_EQ("STAVIK : RequestMsgHandler failed: request is null point", lines[3].text);
    for (const CapturedLine& line : lines) {
        EXPECT_EQ(LOG_ERR, line.level);
    }
    EXPECT_FALSE(IsLive("a"));

    // Types nobody sends are dropped silently.
    LogCapture::Begin();
    for (uint32_t type : {4u, 8u, 10u, 11u}) {
        Message::RequestMsg other{};
        other.type = type;
        Deliver(other);
    }
    EXPECT_TRUE(LogCapture::Lines().empty());

    Deliver(msg);
    EXPECT_TRUE(Count("SK receive START_APP msg from ownerA, appList=a,"));
    EXPECT_TRUE(IsLive("a"));

    Message::RequestMsg exec{};
    exec.type = Message::APP_EXECUTION_REPORT;
    exec.size = snprintf(exec.data, sizeof(exec.data), "1#e#42#7#1#");
    Deliver(exec);
    EXPECT_TRUE(Count("SK receive APP_EXECUTION_REPORT msg from brellan report appName=e, pid=42, gid=7, state="));

    Message::RequestMsg term{};
    term.type = Message::TERM_APP;
    term.size = snprintf(term.data, sizeof(term.data), "1#a#");
    Deliver(term);
    EXPECT_TRUE(Count("SK receive TERM_APP msg from ownerA"));
    EXPECT_FALSE(Count("BASESERVICE_STATE_REPORT"));
}

// LOAD over the pipe is covered by tests/e2e/control; RELOAD answers zero
// even when the owner's own file is broken.
TEST_F(RequestHandler, ReloadOverThePipeReadsTheOwnersOwnFileAndAnswersZero)
{
    std::string startup = sandbox_.WriteFile("/etc/ownerA_startup.yaml", "apps: [\n");
    ManifestData owner = Probe("ownerA");
    owner.startupEntryPath = startup;
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        executedBaseApp_.emplace_back(ApplicationManifest(owner));
    }
    Client::OwnerSession& session = OpenPipe("ownerA");

    std::string answer;
    ASSERT_TRUE(session.ReloadStartupCfg(Message::StartupCfgInfo{{}, "/etc/elsewhere.yaml"}, answer))
        << session.LastError();
    EXPECT_EQ("0", answer);
    // The receive line names the request's path; the owner's own file is read.
    EXPECT_EQ(LOG_INFO, LevelOf("SK receive RELOAD_STARTUP_CFG msg load file=/etc/elsewhere.yaml"));
    EXPECT_EQ(LOG_ERR, LevelOf("LoadStartCfgInfo failed, path=" + startup));
    EXPECT_TRUE(Count("ReLoadStartCfgInfo finish ret=0x0, fd="));
}

using StartupCfg = ControlSteps;

TEST_F(StartupCfg, FailuresAtBootStopNeitherTheLoopNorTheBoot)
{
    Store({Probe("fine"), Broken("broken")});
    PriorityAppList list;
    for (const std::string name : {"broken", "nomanifest", "fine"}) {
        list.push_back(PriorityAppEntry{1, name, "ownerA", ApplicationManifest()});
        std::push_heap(list.begin(), list.end(), PriorityAppAfter());
    }
    daemon_->StartPriorityApps(list);

    EXPECT_EQ(LOG_INFO, LevelOf("Start priority generalApp failed appName=broken, child_pid=0"));
    EXPECT_EQ(TERMINATED, Lookup("broken")->state_);
    EXPECT_EQ(TERMINATED_ABNORMAL_EXIT, Lookup("broken")->reportState_);
    EXPECT_FALSE(IsLive("broken"));
    EXPECT_EQ(LOG_ERR, LevelOf("STAVIK :StartPriorityApps : appName=nomanifest is nullptr"));
    EXPECT_EQ(1u, Count("Start priority generalApp success appName=fine,"));
    EXPECT_EQ(1u, Count("Start priority generalApp success"));

    const std::string missing = sandbox_.Path("/etc/missing.yaml");
    daemon_->InitPriorityApps(missing);
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon LoadStartCfgInfo=" + missing + " failed"));
    EXPECT_EQ(LOG_ERR, LevelOf("stavik-daemon InitPriorityApps failed LoadStartCfgInfo failed"));
    EXPECT_EQ(0u, Count("InitPriorityApps load priority apps cfg finish"));
    EXPECT_EQ(Message::SK_ERR_LOAD_STARTUP_CFG, daemon_->LoadStartCfgInfo(missing, list));
}

TEST_F(StartupCfg, ReloadUpdatesKnownRecordsFromTheTablesAsTheyStand)
{
    ManifestData first = Probe("a", {"--exit", "1"}), second = Probe("a", {"--exit", "2"}, "/opt/other");
    first.restart = "on-failure";
    second.coreAffinity = {255};
    Store({first});
    AppPtr app = Lookup("a");
    app->pid_ = 42;
    Store({second});
    EXPECT_EQ((std::vector<std::string>{"--exit", "1"}), app->arguments_);

    Message::StartupCfgInfo info;
    info.path = sandbox_.Path("/etc/missing.yaml");
    EXPECT_EQ(0u, daemon_->ReLoadStartCfgInfo(info));

    EXPECT_TRUE(Count("LoadStartCfgInfo failed, path=" + info.path));
    // The start description is taken; the policy, the owner and the process stay.
    EXPECT_EQ(std::make_tuple(second.arguments, second.binPath, App::SK_SCHED_FIFO, std::string("on-failure"), 42),
              std::make_tuple(app->arguments_, app->execPath_, app->schedPolicy_, app->restart_, app->pid_));
    EXPECT_EQ("ownerA", app->ownerName_);
    EXPECT_EQ(app, Lookup("a"));
}

} // namespace
} // namespace ControlTest
} // namespace Stavik
