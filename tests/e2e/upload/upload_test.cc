// The upload server through the real daemon: processes started outside it are
// announced with stavik-upload, reported to the naming service, joined to
// groups, given every group name across several answers, and reported gone;
// bad records get no answer at all.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "app/process_state.h"
#include "channel/serialization_upload.h"
#include "tests/support/played_owners.h"
#include "tubix.h"

namespace Stavik {
namespace Test {
namespace {

const std::string WHITE_BIN = "/opt/white/uploader";
const uint32_t RW = 6;
const uint32_t ALLOC = 14;
const int GONE_BOUND_MS = 3000;

// Exit status and the JSON line of the tool.
std::pair<int, nlohmann::json> Upload(const std::string& args, const std::string& envPrefix = "")
{
    auto run = RunCommand(envPrefix + BuiltProgram("client/stavik-upload") + " " + args + " 2>/dev/null");
    return {run.first, nlohmann::json::parse(run.second, nullptr, false)};
}

// A raw record to the upload server; the answer's text, or "timeout".
std::string RawCall(int32_t fd, uint64_t size, const std::string& body, size_t extra = 0)
{
    SkUpload::SkUploadRequest record{};
    record.size = size;
    memcpy(record.data, body.data(), body.size());
    std::string bytes = std::string(reinterpret_cast<const char*>(&record), sizeof(record)) + std::string(extra, 0);
    TubixRequest req{0, bytes.data(), static_cast<uint32_t>(bytes.size())};
    std::string buffer(8192, '\0');
    TubixResponse resp{0, &buffer[0], static_cast<uint32_t>(buffer.size())};
    int32_t rc = TubixTimedRPCSync(fd, &req, &resp, 1000);
    return rc == -110 ? "timeout" : rc < 0 ? "error" : buffer.substr(0, resp.size);
}

TEST(UploadRun, ForeignProcessesAreAnnouncedJoinedAndWatchedUntilTheyGo)
{
    Sandbox box;
    box.WriteFile("/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml",
                  "watch_dog:\n  enable: false\nskupload:\n  enable: true\n");
    // Enough names of the longest kind that they need three answers.
    std::string groupsYaml = "sharepool_groups:\n  - G_A:\n      mem_size: 8\n  - G_B:\n      mem_size: 8\n";
    std::vector<std::string> declared = {"G_A", "G_B"};
    for (int i = 0; i < 260; ++i) {
        std::string name = "G_" + std::to_string(1000 + i) + std::string(25, 'x');
        declared.push_back(name);
        groupsYaml += "  - " + name + ":\n      mem_size: 1\n";
    }
    box.WriteFile("/etc/sharepool/a.yaml", groupsYaml + "add_all_groups_white_lists: [" + WHITE_BIN + "]\n");
    PlayedOwners owners(box, {"zulmgr"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr"), ProbeApp("base_probe")}))});
    OwnerSession& zul = owners["zulmgr"];
    ASSERT_TRUE(ReportRunning(zul)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("Start baseApp success appName=base_probe", OWNER_WAIT_MS)) << daemon.Log();

    // Processes of the test, not of the daemon.
    std::vector<std::unique_ptr<DaemonProcess>> foreign;
    for (int i = 0; i < 5; ++i) {
        foreign.push_back(std::make_unique<DaemonProcess>("/bin/sleep", std::vector<std::string>{"120"},
                                                          std::map<std::string, std::string>{}));
    }
    const pid_t white = foreign[0]->Pid(), none = foreign[1]->Pid(), all = foreign[2]->Pid(),
                list = foreign[3]->Pid(), late = foreign[4]->Pid();
    auto pidArg = [](pid_t pid) { return " --pid " + std::to_string(pid); };

    // The four choices of groups; every answer carries the whole list.
    auto run = Upload("--procName up_white --binPath " + WHITE_BIN + " --rw G_A" + pidArg(white));
    ASSERT_EQ(0, run.first) << daemon.Log();
    EXPECT_EQ(true, run.second["whitelisted"]);
    declared.push_back("DEFAULT_MEM_GROUP");
    EXPECT_EQ(declared, run.second["groups"].get<std::vector<std::string>>());
    EXPECT_GE(daemon.CountLines("PackResponseToSkupload size="), 3u);
    EXPECT_EQ(0, Upload("--procName up_none" + pidArg(none)).first);
    EXPECT_EQ(0, Upload("--procName up_all --rw all --alloc G_B,G_NOPE" + pidArg(all)).first);
    EXPECT_EQ(0, Upload("--procName up_list --rw G_A --alloc DEFAULT_MEM_GROUP" + pidArg(list)).first);
    for (const char* name : {"up_white", "up_none", "up_all", "up_list"}) {
        EXPECT_TRUE(zul.WaitForAppState(name, RUNNING_NORMAL_START, OWNER_WAIT_MS)) << name;
    }
    using Joined = std::map<int32_t, uint32_t>;
    EXPECT_EQ((Joined{{white, RW}, {all, RW}, {list, RW}}), GroupMembers(box, "G_A"));
    EXPECT_EQ((Joined{{white, RW}, {all, ALLOC}}), GroupMembers(box, "G_B"));
    EXPECT_EQ((Joined{{white, RW}, {all, RW}}), GroupMembers(box, declared[declared.size() - 2]));
    EXPECT_EQ((Joined{{white, ALLOC}, {none, ALLOC}, {all, RW}, {list, ALLOC}}), GroupMembers(box, "DEFAULT_MEM_GROUP"));

    // Refusals: a live upload name, and a started base application's name,
    // which still removes the stale entry of its pid. The names still come.
    run = Upload("--procName up_all" + pidArg(late));
    EXPECT_EQ(1, run.first);
    EXPECT_EQ(false, run.second["ok"]);
    size_t mark = zul.EventCount();
    run = Upload("--procName base_probe" + pidArg(white));
    EXPECT_EQ(1, run.first);
    EXPECT_EQ(declared.size(), run.second["groups"].size());
    EXPECT_TRUE(zul.WaitForAppState("up_white", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark));
    EXPECT_GE(daemon.IndexOf("the --procName=up_all that you input is duplicate with existing skupload apps"), 0);
    EXPECT_GE(daemon.IndexOf("the --procName=base_probe that you input is duplicate with already started"), 0);

    // The same pid announced again replaces the first name.
    mark = zul.EventCount();
    EXPECT_EQ(0, Upload("--procName up_list2" + pidArg(list)).first);
    EXPECT_TRUE(zul.WaitForAppState("up_list", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark));
    EXPECT_TRUE(zul.WaitForAppState("up_list2", RUNNING_NORMAL_START, OWNER_WAIT_MS, mark));

    // A process that ends is reported within the upload check's period.
    mark = zul.EventCount();
    auto before = std::chrono::steady_clock::now();
    // Reaped at once: a zombie still has its /proc entry.
    foreign[1]->KillGroup();
    ASSERT_TRUE(zul.WaitForAppState("up_none", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark)) << daemon.Log();
    auto took = std::chrono::steady_clock::now() - before;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), GONE_BOUND_MS);
    EXPECT_NE("", daemon.WaitForLine("skupload pid=" + std::to_string(none) + ", name=up_none is not existent"));

    // Bad records get no answer; a good one on the same pipe still does.
    setenv("PROC_NAME", "upload_test", 1);
    TubixOpenParam param{};
    param.procName = "STAVIK";
    param.handler = [](int32_t, const TubixRequest*) {};
    param.msgMode = 1;
    param.timeoutMs = 2000;
    int32_t fd = TubixOpen(&param);
    ASSERT_GT(fd, 0);
    const std::string raw = "raw#/bin/true#" + std::to_string(late) + "#0#0#0#1#0#";
    EXPECT_EQ("timeout", RawCall(fd, raw.size(), raw, 16));
    EXPECT_EQ("timeout", RawCall(fd, 3961, raw));
    EXPECT_EQ("timeout", RawCall(fd, 30, "raw#/bin/true#1#0#1025#"));
    SkUpload::UploadResponse answer;
    ASSERT_TRUE(SkUpload::ReadUploadResponse(RawCall(fd, 3960, raw), answer));
    EXPECT_TRUE(answer.ok && answer.remaining > 0);
    TubixClosePipe(fd);
    EXPECT_GE(daemon.IndexOf("SkHandleRequest: req size=3984 bytes, req msg size=3968 bytes"), 0);
    EXPECT_GE(daemon.IndexOf("SkHandleRequest failed: request size=3961 bytes > 3960"), 0);
    EXPECT_GE(daemon.IndexOf("UnPackInfoRequest: rwGroupsSize=1025 is bigger than 1024"), 0);
    EXPECT_EQ(0u, daemon.CountLines("SkHandleRequest receive pid=1,"));

    // A daemon that can't be reached is an error of its own.
    EXPECT_EQ(2, Upload("--procName lost --timeout-ms 200", "TUBIX_DIR=/nonexistent ").first);
}

} // namespace
} // namespace Test
} // namespace Stavik
