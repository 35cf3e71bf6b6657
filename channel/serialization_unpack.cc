#include "channel/serialization.h"

#include <locale>
#include <sstream>

#include "core/constants.h"
#include "core/log.h"

// Text bodies are read with plain stream extraction: numbers skip leading blanks
// and take any one non-blank character as their separator, strings run up to
// "#". After a malformed number the stream stays failed, that number reads as
// 0, and every later read leaves its target as it was. Counts are read into
// fresh zeroed locals, so a failed stream yields empty entries without growing
// any list further.
namespace Stavik {
namespace Serialization {

using Message::AppExecInfo;
using Message::BaseServiceStateInfo;
using Message::DynamicParaMap;
using Message::RequestMsg;
using Message::RestartAppInfo;
using Message::StartAppInfo;
using Message::StartupCfgInfo;
using Message::TermAppInfo;

namespace {

// The body is taken as `size` says, but never past the end of `data`.
std::istringstream BodyStream(const RequestMsg& msg)
{
    std::istringstream in(std::string(msg.data, Message::BodySize(msg)));
    in.imbue(std::locale::classic());
    return in;
}

template <typename Number>
void ReadNumber(std::istream& in, Number& number)
{
    char separator = 0;
    in >> number >> separator;
}

void ReadString(std::istream& in, std::string& text)
{
    std::getline(in, text, '#');
}

// Words that tell the start reader from the restart reader in its log lines.
struct AppListWords {
    const char* request;
    const char* listSize;
};

template <typename AppInfo>
void UnpackAppList(const RequestMsg& msg, std::vector<AppInfo>& apps, const std::string& owner,
                   const AppListWords& words)
{
    std::istringstream in = BodyStream(msg);
    uint32_t count = 0;
    ReadNumber(in, count);
    if (count > Message::APP_LIST_SIZE_MAX) {
        Syslog(LOG_ERR, "Stavik : StavikMaster Unpack%sRequest err: big %s=%u", words.request, words.listSize, count);
        return;
    }
    apps.resize(count);
    for (AppInfo& app : apps) {
        ReadString(in, app.appName);
        uint32_t argvSize = 0;
        ReadNumber(in, argvSize);
        if (argvSize > Message::ARGV_SIZE_MAX) {
            // The unread arguments are taken for the next entries, as they come.
            Syslog(LOG_ERR, "Stavik : StavikMaster : Unpack%sRequest err, argvSize=%u", words.request, argvSize);
            continue;
        }
        app.argv.resize(argvSize);
        for (std::string& arg : app.argv) {
            ReadString(in, arg);
        }
        if (owner == ZUL_MGR_NAME) {
            continue;
        }
        if (!UnPackDynamicPara(in, app.dynamicPara)) {
            return;
        }
    }
}

void ReadValues(std::istream& in, uint64_t valueNum, int32_t index, DynamicParaMap& dynamicPara)
{
    for (uint64_t i = 0; i < valueNum; ++i) {
        std::string value;
        ReadString(in, value);
        dynamicPara[index].push_back(std::move(value));
    }
}

} // namespace

void StavikUnpackStartRequest(const RequestMsg& msg, std::vector<StartAppInfo>& apps, const std::string& owner)
{
    UnpackAppList(msg, apps, owner, AppListWords{"Start", "startAppListSize"});
}

void StavikUnpackRestartRequest(const RequestMsg& msg, std::vector<RestartAppInfo>& apps, const std::string& owner)
{
    UnpackAppList(msg, apps, owner, AppListWords{"Restart", "restartAppListSize"});
}

bool UnPackDynamicPara(std::istream& in, DynamicParaMap& dynamicPara)
{
    uint64_t dynamicParaSize = 0;
    ReadNumber(in, dynamicParaSize);
    if (dynamicParaSize > Message::DYNAMIC_PARA_SIZE_MAX) {
        Syslog(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicParaSize=%zu invalid",
               static_cast<size_t>(dynamicParaSize));
        return false;
    }
    dynamicPara.clear();
    for (uint64_t group = 0; group < dynamicParaSize; ++group) {
        // No lower bound: a negative index becomes a slot of its own.
        int32_t index = 0;
        ReadNumber(in, index);
        if (index > Message::DYNAMIC_PARA_INDEX_MAX) {
            Syslog(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicPara index=%d invalid", index);
            return false;
        }
        uint64_t valueNum = 0;
        ReadNumber(in, valueNum);
        if (valueNum > Message::DYNAMIC_PARA_VALUE_NUM_MAX) {
            Syslog(LOG_ERR, "Stavik : StavikMaster unpack request failed, dynamicPara index=%d, valueNum=%zu invalid",
                   index, static_cast<size_t>(valueNum));
            return false;
        }
        ReadValues(in, valueNum, index, dynamicPara);
    }
    return true;
}

void StavikUnpackTermRequest(const RequestMsg& msg, std::vector<TermAppInfo>& apps)
{
    std::istringstream in = BodyStream(msg);
    uint32_t count = 0;
    ReadNumber(in, count);
    if (count > Message::APP_LIST_SIZE_MAX) {
        Syslog(LOG_ERR, "Stavik : StavikMaster UnpackTermRequest err: big AppListSize=%u", count);
        return;
    }
    apps.resize(count);
    for (TermAppInfo& app : apps) {
        ReadString(in, app.appName);
    }
}

void StavikUnpackedBaseServiceStateRequest(const RequestMsg& msg, BaseServiceStateInfo& info)
{
    std::istringstream in = BodyStream(msg);
    uint32_t leading = 0;
    ReadNumber(in, leading);
    ReadNumber(in, info.state);
}

void StavikUnpackedAppExecInfoRequest(const RequestMsg& msg, AppExecInfo& info)
{
    std::istringstream in = BodyStream(msg);
    uint32_t leading = 0;
    ReadNumber(in, leading);
    ReadString(in, info.appName);
    ReadNumber(in, info.pid);
    ReadNumber(in, info.gid);
    ReadNumber(in, info.state);
}

void StavikUnpackMatchDataAndPathRequest(const RequestMsg& msg, StartupCfgInfo& info)
{
    std::istringstream in = BodyStream(msg);
    uint32_t leading = 0;
    ReadNumber(in, leading);
    ReadString(in, info.path);
    uint32_t matchCount = 0;
    ReadNumber(in, matchCount);
    if (matchCount == 0 || matchCount > Message::MATCH_COUNT_MAX) {
        return;
    }
    for (uint32_t i = 0; i < matchCount; ++i) {
        if (!in) {
            // Every later pair of a failed stream reads empty and the first pair
            // for a key wins, so one insertion stands for all of them.
            info.matchData.emplace(std::string(), std::string());
            break;
        }
        std::string key;
        std::string value;
        ReadString(in, key);
        ReadString(in, value);
        info.matchData.emplace(std::move(key), std::move(value));
    }
}

} // namespace Serialization
} // namespace Stavik
