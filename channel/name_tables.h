#ifndef STAVIK_CHANNEL_NAME_TABLES_H
#define STAVIK_CHANNEL_NAME_TABLES_H

#include <cstdint>
#include <string>

// Number-to-word tables of the control channel, printed in log lines and
// exported for client code. An unknown number gives the empty string.
namespace Stavik {

std::string GetReportAppStateTypeStr(uint64_t value);
std::string GetProcessStateStr(uint64_t value);
std::string GetBaseServiceStateTypeStr(uint64_t value);
std::string GetAppExecStateStr(uint64_t value);
std::string GetOptionType(uint64_t value);
std::string GetGroupOwner(uint64_t value);
std::string GetAppState(uint64_t value);
std::string GetSysState(uint64_t value);

} // namespace Stavik

#endif
