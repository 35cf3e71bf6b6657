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
#include <string>
#include <vector>

#include "app/process_state.h"
#include "channel/serialization_upload.h"
#include "hal.h"
#include "tests/support/played_owners.h"
#include "tests/support/service_manifest.h"
#include "tubix.h"

namespace Stavik {
namespace Test {
namespace {

const std::string WHITE_BIN = "/opt/white/uploader";
const uint32_t RW = 6;
const uint32_t ALLOC = 14;
const int GONE_BOUND_MS = 3000;

// A process of the test, not of the daemon; killed and reaped at the end.
class Foreign {
public:
    Foreign()
    {
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sleep", "sleep", "120", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Foreign() { End(); }
    pid_t Pid() const { return pid_; }
    // Reaped at once: a zombie still has its /proc entry.
    void End()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

struct ToolRun {
    nlohmann::json out;
    int status = -1;
};

ToolRun Upload(const std::string& args, const std::string& envPrefix = "")
{
    std::string command = envPrefix + BuiltProgram("client/stavik-upload") + " " + args + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        text += buffer;
    }
    int status = pipe != nullptr ? pclose(pipe) : -1;
    ToolRun run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = nlohmann::json::parse(text, nullptr, false);
    return run;
}

std::map<int32_t, uint32_t> Members(const std::string& group)
{
    std::vector<HalGrpMember> members(64);
    uint32_t length = static_cast<uint32_t>(members.size() * sizeof(HalGrpMember));
    std::map<int32_t, uint32_t> found;
    std::string name = group;
    if (halGrpQuery(HAL_GRP_QUERY_MEMBERS, &name[0], static_cast<uint32_t>(name.size()), members.data(),
                    &length) == 0) {
        for (uint32_t i = 0; i < length / sizeof(HalGrpMember); ++i) {
            found[members[i].pid] = members[i].permission;
        }
    }
    return found;
}

// Sends raw bytes to the upload server; the answer's text, or "timeout".
std::string RawCall(int32_t fd, const std::string& bytes)
{
    TubixRequest req{0, bytes.data(), static_cast<uint32_t>(bytes.size())};
    std::string buffer(8192, '\0');
    TubixResponse resp{0, &buffer[0], static_cast<uint32_t>(buffer.size())};
    int32_t rc = TubixTimedRPCSync(fd, &req, &resp, 1000);
    return rc == -110 ? "timeout" : rc < 0 ? "error" : buffer.substr(0, resp.size);
}

std::string Record(uint64_t size, const std::string& body, size_t extra = 0)
{
    SkUpload::SkUploadRequest record{};
    record.size = size;
    memcpy(record.data, body.data(), body.size());
    std::string bytes(reinterpret_cast<const char*>(&record), sizeof(record));
    return bytes + std::string(extra, '\0');
}

TEST(UploadRun, ForeignProcessesAreAnnouncedJoinedAndWatchedUntilTheyGo)
{
    Sandbox box;
    box.WriteFile("/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml", "watch_dog:\n  enable: false\nskupload:\n  enable: true\n");
    // Enough names of the longest kind that they need three answers.
    std::string groupsYaml = "sharepool_groups:\n  - G_A:\n      mem_size: 8\n  - G_B:\n      mem_size: 8\n";
    std::vector<std::string> declared = {"G_A", "G_B"};
    for (int i = 0; i < 260; ++i) {
        std::string name = "G_" + std::to_string(1000 + i) + std::string(25, 'x');
        declared.push_back(name);
        groupsYaml += "  - " + name + ":\n      mem_size: 1\n";
    }
    box.WriteFile("/etc/sharepool/a.yaml", groupsYaml + "add_all_groups_white_lists: [" + WHITE_BIN + "]\n");
    std::string manifest =
        box.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr"), ProbeApp("base_probe", {"--sleep-forever"})}));
    PlayedOwners owners(box, {"zulmgr"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {manifest});
    OwnerSession& zul = owners["zulmgr"];
    ASSERT_TRUE(ReportRunning(zul)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("Start baseApp success appName=base_probe", OWNER_WAIT_MS)) << daemon.Log();

    Foreign white, none, all, list, late;
    auto pidArg = [](const Foreign& f) { return " --pid " + std::to_string(f.Pid()); };

    // The four choices of groups; every answer carries the whole list.
    ToolRun run = Upload("--procName up_white --binPath " + WHITE_BIN + " --rw G_A" + pidArg(white));
    ASSERT_EQ(0, run.status) << daemon.Log();
    EXPECT_EQ(true, run.out["whitelisted"]);
    std::vector<std::string> names = run.out["groups"].get<std::vector<std::string>>();
    std::vector<std::string> expected = declared;
    expected.push_back("DEFAULT_MEM_GROUP");
    EXPECT_EQ(expected, names);
    EXPECT_GE(daemon.CountLines("PackResponseToSkupload size="), 3u);
    EXPECT_EQ(0, Upload("--procName up_none" + pidArg(none)).status);
    run = Upload("--procName up_all --rw all --alloc G_B,G_NOPE" + pidArg(all));
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(false, run.out["whitelisted"]);
    EXPECT_EQ(0, Upload("--procName up_list --rw G_A --alloc DEFAULT_MEM_GROUP" + pidArg(list)).status);
    for (const char* name : {"up_white", "up_none", "up_all", "up_list"}) {
        EXPECT_TRUE(zul.WaitForAppState(name, RUNNING_NORMAL_START, OWNER_WAIT_MS)) << name;
    }
    EXPECT_EQ((std::map<int32_t, uint32_t>{{white.Pid(), RW}, {all.Pid(), RW}, {list.Pid(), RW}}), Members("G_A"));
    EXPECT_EQ((std::map<int32_t, uint32_t>{{white.Pid(), RW}, {all.Pid(), ALLOC}}), Members("G_B"));
    EXPECT_EQ((std::map<int32_t, uint32_t>{{white.Pid(), RW}, {all.Pid(), RW}}), Members(declared.back()));
    std::map<int32_t, uint32_t> defaults = Members("DEFAULT_MEM_GROUP");
    EXPECT_EQ(ALLOC, defaults[white.Pid()]);
    EXPECT_EQ(ALLOC, defaults[none.Pid()]);
    EXPECT_EQ(RW, defaults[all.Pid()]);
    EXPECT_EQ(ALLOC, defaults[list.Pid()]);

    // Refusals: a live upload name, and a started base application's name,
    // which still removes the stale entry of its pid. The names still come.
    run = Upload("--procName up_all" + pidArg(late));
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(false, run.out["ok"]);
    EXPECT_NE("", daemon.WaitForLine("the --procName=up_all that you input is duplicate with existing skupload apps"));
    size_t mark = zul.EventCount();
    run = Upload("--procName base_probe" + pidArg(white));
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(expected.size(), run.out["groups"].size());
    EXPECT_TRUE(zul.WaitForAppState("up_white", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark));
    EXPECT_NE("", daemon.WaitForLine("the --procName=base_probe that you input is duplicate with already started"));

    // The same pid announced again replaces the first name.
    mark = zul.EventCount();
    EXPECT_EQ(0, Upload("--procName up_list2" + pidArg(list)).status);
    EXPECT_TRUE(zul.WaitForAppState("up_list", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark));
    EXPECT_TRUE(zul.WaitForAppState("up_list2", RUNNING_NORMAL_START, OWNER_WAIT_MS, mark));
    EXPECT_NE("", daemon.WaitForLine("remove the old one(up_list)"));

    // A process that ends is reported within the upload check's period.
    mark = zul.EventCount();
    const std::string nonePid = std::to_string(none.Pid());
    auto before = std::chrono::steady_clock::now();
    none.End();
    ASSERT_TRUE(zul.WaitForAppState("up_none", TERMINATED_NORMAL_EXIT, OWNER_WAIT_MS, mark)) << daemon.Log();
    auto took = std::chrono::steady_clock::now() - before;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), GONE_BOUND_MS);
    EXPECT_NE("", daemon.WaitForLine("skupload pid=" + nonePid + ", name=up_none is not existent"));

    // Bad records get no answer; a good one on the same pipe still does.
    setenv("PROC_NAME", "upload_test", 1);
    TubixOpenParam param{};
    param.procName = "STAVIK";
    param.handler = [](int32_t, const TubixRequest*) {};
    param.msgMode = 1;
    param.timeoutMs = 2000;
    int32_t fd = TubixOpen(&param);
    ASSERT_GT(fd, 0);
    const std::string body = "raw#/bin/true#" + std::to_string(late.Pid()) + "#0#0#0#1#0#";
    EXPECT_EQ("timeout", RawCall(fd, Record(body.size(), body, 16)));
    EXPECT_EQ("timeout", RawCall(fd, Record(3961, body)));
    EXPECT_EQ("timeout", RawCall(fd, Record(body.size(), "raw#/bin/true#1#0#1025#")));
    std::string answer = RawCall(fd, Record(3960, body));
    EXPECT_EQ("1#0#", answer.substr(0, 4));
    SkUpload::UploadResponse response;
    ASSERT_TRUE(SkUpload::ReadUploadResponse(answer, response)) << answer;
    EXPECT_GT(response.remaining, 0u);
    TubixClosePipe(fd);
    EXPECT_GE(daemon.IndexOf("SkHandleRequest: req size=3984 bytes, req msg size=3968 bytes"), 0);
    EXPECT_GE(daemon.IndexOf("SkHandleRequest failed: request size=3961 bytes > 3960"), 0);
    EXPECT_GE(daemon.IndexOf("UnPackInfoRequest: rwGroupsSize=1025 is bigger than 1024"), 0);
    EXPECT_EQ(0u, daemon.CountLines("SkHandleRequest receive pid=1,"));

    // A daemon that can't be reached is an error of its own.
    EXPECT_EQ(2, Upload("--procName lost --timeout-ms 200", "TUBIX_DIR=/nonexistent ").status);
}

} // namespace
} // namespace Test
} // namespace Stavik
