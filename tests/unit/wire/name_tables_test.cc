#include <gtest/gtest.h>

#include <cstdint>

#include "channel/name_tables.h"

namespace Stavik {
namespace {

TEST(NameTables, LastWordAndPastTheEnd)
{
    EXPECT_EQ(GetReportAppStateTypeStr(0), "RUNNING_NORMAL_START");
    EXPECT_EQ(GetReportAppStateTypeStr(5), "INVALID_INTERMEDIATE_STATE");
    EXPECT_EQ(GetReportAppStateTypeStr(6), "");
    EXPECT_EQ(GetProcessStateStr(5), "RESTARTING");
    EXPECT_EQ(GetProcessStateStr(6), "");
    EXPECT_EQ(GetBaseServiceStateTypeStr(3), "TERMINATING");
    EXPECT_EQ(GetBaseServiceStateTypeStr(4), "");
    EXPECT_EQ(GetAppExecStateStr(1), "TERMINATED");
    EXPECT_EQ(GetAppExecStateStr(2), "");
    EXPECT_EQ(GetGroupOwner(2), "CORVETH");
    EXPECT_EQ(GetGroupOwner(3), "");
    EXPECT_EQ(GetAppState(6), "START_FAILED_BY_EIO");
    EXPECT_EQ(GetAppState(7), "");
    // A large number must not wrap onto a valid row.
    EXPECT_EQ(GetProcessStateStr(UINT64_MAX), "");
    EXPECT_EQ(GetAppState(UINT64_MAX), "");
}

TEST(NameTables, OptionTypeOrderDiffersFromRequestType)
{
    EXPECT_EQ(GetOptionType(0), "START");
    EXPECT_EQ(GetOptionType(1), "TERM");
    EXPECT_EQ(GetOptionType(2), "RESTART");
    EXPECT_EQ(GetOptionType(3), "");
}

TEST(NameTables, SysStateIsSparse)
{
    EXPECT_EQ(GetSysState(4), "CALIBRATION");
    EXPECT_EQ(GetSysState(5), "");
    EXPECT_EQ(GetSysState(256), "");
    EXPECT_EQ(GetSysState(257), "HIGH_LEVEL_VOLD_EXIT");
    EXPECT_EQ(GetSysState(258), "SUSPEND_PRE");
    EXPECT_EQ(GetSysState(259), "");
}

} // namespace
} // namespace Stavik
