#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "channel/name_tables.h"

namespace Stavik {
namespace {

// The last row of each table, the first number past it, and the sparse and
// differently ordered tables; a large number must not wrap onto a valid row.
TEST(NameTables, EdgeRows)
{
    struct Row {
        std::string (*lookup)(uint64_t);
        uint64_t number;
        const char* name;
    };
    const Row rows[] = {
        {GetReportAppStateTypeStr, 0, "RUNNING_NORMAL_START"}, {GetReportAppStateTypeStr, 5, "INVALID_INTERMEDIATE_STATE"},
        {GetReportAppStateTypeStr, 6, ""}, {GetProcessStateStr, 5, "RESTARTING"}, {GetProcessStateStr, 6, ""},
        {GetProcessStateStr, UINT64_MAX, ""}, {GetBaseServiceStateTypeStr, 3, "TERMINATING"},
        {GetBaseServiceStateTypeStr, 4, ""}, {GetAppExecStateStr, 1, "TERMINATED"}, {GetAppExecStateStr, 2, ""},
        {GetGroupOwner, 2, "CORVETH"}, {GetGroupOwner, 3, ""}, {GetAppState, 6, "START_FAILED_BY_EIO"},
        {GetAppState, 7, ""}, {GetAppState, UINT64_MAX, ""}, {GetOptionType, 0, "START"}, {GetOptionType, 1, "TERM"},
        {GetOptionType, 2, "RESTART"}, {GetOptionType, 3, ""}, {GetSysState, 4, "CALIBRATION"}, {GetSysState, 5, ""},
        {GetSysState, 256, ""}, {GetSysState, 257, "HIGH_LEVEL_VOLD_EXIT"}, {GetSysState, 258, "SUSPEND_PRE"},
        {GetSysState, 259, ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.lookup(row.number), row.name) << row.number << " " << row.name;
    }
}

} // namespace
} // namespace Stavik
