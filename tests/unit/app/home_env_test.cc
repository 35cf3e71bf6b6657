#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>

#include "app/home_env.h"
#include "app_test_util.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace App {
namespace {

using AppTest::LevelOf;
using AppTest::ScopedLogCapture;

// Reads "/etc/passwd" of a sandbox root, the way the daemon is given it.
TEST(HomeEnv, HomeOfTheFirstLineWithTheKey)
{
    Stavik::Test::Sandbox sandbox;
    const std::string& root = sandbox.Root();
    setenv("STAVIK_SYSROOT", root.c_str(), 1);
    auto inquire = [&](const std::string& text) {
        sandbox.WriteFile("/etc/passwd", text);
        InquireHomeEnvVariable("/etc/passwd", "1000:1000");
        return DaemonHomeEnv();
    };
    ScopedLogCapture capture;

    EXPECT_EQ(inquire("root:x:0:0:root:/root:/bin/bash\n"
                      "user:x:1000:1000:User,,,:/home/user:/bin/bash\n"
                      "other:x:1001:1000:Other:/home/other:/bin/sh\n"),
              "/home/user");
    EXPECT_EQ(LevelOf("STAVIK: InquireHomeEnvVariable finished home env=/home/user "), LOG_INFO);

    EXPECT_EQ(inquire("root:x:0:0:root:/root:/bin/bash\n"), "/home/user");
    EXPECT_EQ(LevelOf("STAVIK: InquireHomeEnvVariable not find 1000:1000 env"), LOG_INFO);
    InquireHomeEnvVariable("/etc/missing", "1000:1000");
    EXPECT_EQ(DaemonHomeEnv(), "/home/user");
    EXPECT_EQ(LevelOf("fopen " + root + "/etc/missing fail, errno=" + std::to_string(ENOENT)), LOG_ERR);

    EXPECT_EQ(inquire("user:x:1000:1000:no home\n"), "");
    DaemonHomeEnv() = "/previous";
    EXPECT_EQ(inquire("x1000:1000x/home/user\n"), "");

    unsetenv("STAVIK_SYSROOT");
    DaemonHomeEnv().clear();
}

} // namespace
} // namespace App
} // namespace Stavik
