// Owner pipes from outside the C++ library: a process of another group that
// binds a service's name first is not taken for the service, and a naming
// service written in another language against the frame format alone works.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/service_manifest.h"

namespace Stavik {
namespace Test {
namespace {

const int BOOT_TIMEOUT_MS = 30000;

TEST(PipeEndpoint, ASquatterIsRefusedAndAnOwnerSpeakingOnlyTheFrameFormatWorks)
{
    Sandbox sandbox;
    const std::string script = std::string(STAVIK_SOURCE_DIR) + "/tests/helpers/frame_owner.py";
    const std::string path = sandbox.TubixDir() + "/victim";
    DaemonProcess squatter("/usr/bin/setpriv", {"--reuid=4242", "--regid=4242", "--clear-groups", "/usr/bin/python3",
                                                script, "squat", path},
                           {{"PATH", getenv("PATH")}});
    ASSERT_TRUE(WaitUntil([&] { return access(path.c_str(), F_OK) == 0; })) << squatter.Log();
    AppEntry zulmgr = ProbeApp("zulmgr").With("reporting", "true");
    zulmgr.binPath = script;
    zulmgr.args = {"owner", sandbox.Path("/run/zulmgr.out")};
    AppEntry after = ProbeApp("after_zulmgr", {"--sleep-forever"});
    after.depends = {"zulmgr"};
    AppEntry victim = ProbeApp("victim", {"--sleep-forever"}).With("reporting", "true");
    DaemonProcess daemon(sandbox, {sandbox.WriteFile("/etc/base.yaml", AppsText({zulmgr, after, victim}))});
    ASSERT_NE("", daemon.WaitForLine(" InitBaseApplication end", BOOT_TIMEOUT_MS)) << daemon.Log();

    // The squatter's pipe is refused and its report never arrives.
    EXPECT_NE("", daemon.WaitForLine("STAVIK : procname=victim RegisterService failed", 0)) << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine("has gid 4242, the service has gid 0", 0)) << daemon.Log();
    EXPECT_NE("", daemon.WaitForLine("RegServiceCallBack failed!! ret=-13", 0)) << daemon.Log();
    EXPECT_EQ(0u, daemon.CountLines("BASESERVICE_STATE_REPORT msg from victim")) << daemon.Log();

    // The frame-format owner adopts its endpoint, reports INIT, hears the
    // daemon announce itself, and reports RUNNING, which lets its dependant start.
    EXPECT_NE("", daemon.WaitForLine("SK receive BASESERVICE_STATE_REPORT msg from zulmgr report state=RUNNING", 0));
    EXPECT_LE(0, daemon.IndexOf("Start baseApp success appName=after_zulmgr")) << daemon.Log();
    EXPECT_TRUE(WaitUntil([&] { return sandbox.ReadFile("/run/zulmgr.out").find("report=STAVIK") != std::string::npos; }))
        << daemon.Log();
}

} // namespace
} // namespace Test
} // namespace Stavik
