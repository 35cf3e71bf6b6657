// One boot through every marked stage, with the boot-dot file and the console
// as pipes read by the test, and a kill manager file that is no driver.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const std::string STAMP = R"(\[[0-9]+\.[0-9]{6}s\]\[BOOT_TRACE\]\[SK\])";

// A named pipe under the root, open for reading before the daemon starts so
// that its writers never wait; Text() is all written to it so far.
struct PipeFile {
    PipeFile(const Sandbox& sandbox, const std::string& path)
    {
        MakeDirs(sandbox.Path(path.substr(0, path.rfind('/'))));
        mkfifo(sandbox.Path(path).c_str(), 0600);
        fd = open(sandbox.Path(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~PipeFile() { close(fd); }
    std::string Text()
    {
        char buffer[512];
        for (ssize_t length = 0; (length = read(fd, buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, static_cast<size_t>(length));
        }
        return text;
    }
    int fd = -1;
    std::string text;
};

TEST(BootMarks, EveryStageReachesTheBootDotFileAndOnlyTheMainOnesTheConsole)
{
    Sandbox sandbox;
    PipeFile setblk(sandbox, "/proc/bootdot/setblk");
    PipeFile console(sandbox, "/dev/ttyAMA0");
    sandbox.WriteFile("/proc/kill_mgr", "");
    AppEntry mirrored =
        ProbeApp("mirrored", {"--exit", "3", "--after-ms", "300"}).With("startup_priority", "1").With("process_type", "1");
    std::string zulFile = sandbox.WriteFile("/etc/startup/zulmgr.yaml", AppsText({mirrored}));
    AppEntry brellan = DummyOwner("brellan");
    brellan.depends = {"zulmgr"};
    std::string manifest = sandbox.WriteFile("/etc/base.yaml", AppsText({DummyOwner("zulmgr", zulFile), brellan}));
    PlayedOwners owners(sandbox, {"zulmgr", "brellan"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(sandbox, {manifest});
    ASSERT_TRUE(ReportRunning(owners["zulmgr"])) << daemon.Log();
    ASSERT_TRUE(ReportRunning(owners["brellan"])) << daemon.Log();

    const std::string marks = "15,305441741,268435457\n15,305441741,536870913\n15,305441741,805306369\n"
                              "15,305441741,1073741825\n15,305441741,4294967295\n";
    EXPECT_TRUE(WaitUntil([&] { return setblk.Text() == marks; }, OWNER_WAIT_MS)) << setblk.Text();
    const std::regex consoleMarks(STAMP + "sk=0x20000001\n" + STAMP + "sk=0xffffffff\n");
    EXPECT_TRUE(WaitUntil([&] { return std::regex_match(console.Text(), consoleMarks); }, OWNER_WAIT_MS))
        << console.Text();
    EXPECT_EQ(0u, daemon.CountLines("stavik open file="));

    // The kill manager hears of the type-1 application's start and end; the
    // sandbox's file is no driver, so each request fails in the kernel.
    EXPECT_NE("", daemon.WaitForLine("OpenKillMgr success."));
    std::vector<StartLine> starts = daemon.Starts("Start priority generalApp success");
    ASSERT_EQ(1u, starts.size()) << daemon.Log();
    const std::string pid = std::to_string(starts[0].pid);
    for (const std::string code : {"3", "4"}) {
        EXPECT_NE("", daemon.WaitForLine("ModifyKillMgr ioctl failed. errno:25, info:[mirrored, " + pid + ", " +
                                         code + "]", OWNER_WAIT_MS)) << daemon.Log();
    }
    EXPECT_EQ(0u, daemon.CountLines("ModifyKillMgrTask file not exist."));
}

} // namespace
} // namespace Test
} // namespace Stavik
