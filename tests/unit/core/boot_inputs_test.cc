// The daemon's own configuration file, the command-line reader's quirks and
// the boot stamp, read in a sandbox root.
#include <gtest/gtest.h>

#include <cstdlib>

#include "boot/cmdline.h"
#include "boot/stavik_cfg.h"
#include "core/boot_strace.h"
#include "core/log.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace {

const std::string CFG_FILE = "/etc/qel/base-plat/stavik-daemon/stavik_cfg.yaml";

class BootInputs : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", box_.Root().c_str(), 1);
        LogCapture::Begin();
    }
    void TearDown() override
    {
        LogCapture::End();
        unsetenv("STAVIK_SYSROOT");
    }

    ::Stavik::Test::Sandbox box_;
};

struct CfgCase {
    const char* text;  // nullptr: no file
    bool wdEnable;
    std::string timeout;
    std::string action;
    bool upload;
    std::vector<std::string> lines;
};

TEST_F(BootInputs, ConfigurationFileFillsWhatItHasAndKeepsTheDefaultsElsewhere)
{
    const std::vector<CfgCase> cases = {
        {nullptr, true, "60", "2", false, {"LoadStavikCfg file=" + box_.Path(CFG_FILE) + " failed. errno=2"}},
        {"skupload:\n  enable: true\n", true, "60", "2", false, {"LoadWatchDogCfg not exist watch_dog key"}},
        {"watch_dog: {}\nskupload: {}\n", true, "60", "2", true,
         {"GetWatchDogEnable is null !", "GetWatchDogTimeout is null !", "GetWatchDogAction is null !",
          "GetSkuploadEnable is null !", "STAVIK: LoadSkUploadCfg finish enable=1"}},
        {"watch_dog:\n  enable: false\n  timeout: \"12a\"\n  action: \"3\"\n", false, "60", "2", false,
         {"STAVIK: LoadWatchDogCfg finish enable=0, wdTimeout=60 s, wdAction=2",
          "LoadSkUploadCfg not exist skupload key"}},
        {"watch_dog:\n  timeout: \"\"\n  action: \"0\"\nskupload:\n  enable: false\n", true, "60", "0", false,
         {"STAVIK: LoadSkUploadCfg finish enable=0"}},
        {"watch_dog:\n  timeout: \"120\"\n  action: \"1\"\n", true, "120", "1", false, {}},
        {"watch_dog: [unclosed\n", true, "60", "2", false,
         {"LoadStavikCfg file=" + box_.Path(CFG_FILE) + " failed. init yaml node failed"}},
    };
    for (const CfgCase& c : cases) {
        if (c.text != nullptr) {
            box_.WriteFile(CFG_FILE, c.text);
        }
        LogCapture::Begin();
        StavikCfg cfg;
        LoadStavikCfg(CFG_FILE, cfg);
        const std::string label = c.text == nullptr ? "no file" : c.text;
        EXPECT_EQ(c.wdEnable, cfg.wdEnable) << label;
        EXPECT_EQ(c.timeout, cfg.wdTimeout) << label;
        EXPECT_EQ(c.action, cfg.wdAction) << label;
        EXPECT_EQ(c.upload, cfg.skUploadEnable_) << label;
        for (const std::string& line : c.lines) {
            EXPECT_EQ(1u, LogCapture::Count(line)) << label << ": " << line;
        }
        // Bad values fall back without a line of their own.
        EXPECT_EQ(0u, LogCapture::Count("12a")) << label;
    }
}

TEST_F(BootInputs, BootArgumentsMatchTextNotWordsAndAKeyEndingTheLineIsAbsent)
{
    // The boot stamp's fraction survives, and without a frequency there is none.
    EXPECT_EQ("[0.500000s][BOOT_TRACE][X]", FormatBootStrace(1, 2, "X"));
    EXPECT_EQ("", FormatBootStrace(12345, 0, "SK"));

    using Set = std::set<std::string>;
    EXPECT_EQ((Set{"a", "boot:b"}), ParseBootArgs("x stavik=a,,boot:b, y=1", "stavik", ","));
    EXPECT_EQ((Set{"a"}), ParseBootArgs("xstavik=a stavik=b", "stavik", ","));
    EXPECT_EQ(Set{}, ParseBootArgs("stavik= quiet", "stavik", ","));
    EXPECT_EQ(Set{}, ParseBootArgs("quiet", "stavik", ","));
    EXPECT_EQ(1u, LogCapture::Count("key=stavik not found in cmdline."));
    EXPECT_EQ(Set{}, ParseBootArgs("quiet stavik", "stavik", ","));
    EXPECT_EQ(Set{}, ParseBootArgs("stavik=", "stavik", ","));
    EXPECT_EQ(1u, LogCapture::Count("Stavik: cmdline key=stavik ends the line without a value, taken as absent"));
}

} // namespace
} // namespace Stavik
