#include "client/request_packer.h"

#include "core/constants.h"
#include "securec.h"

namespace Stavik {
namespace Client {

using Message::AppExecInfo;
using Message::BaseServiceStateInfo;
using Message::DynamicParaMap;
using Message::RequestMsg;
using Message::RequestType;
using Message::RestartAppInfo;
using Message::StartAppInfo;
using Message::StartupCfgInfo;
using Message::TermAppInfo;

namespace {

// A text body under construction: every field ends in "#", numbers are plain
// decimal. The daemon reads a "#" inside a string as the end of the field, so
// such a string is refused rather than sent.
class TextBody {
public:
    void Number(uint64_t value)
    {
        text_ += std::to_string(value);
        text_ += '#';
    }

    bool Field(const std::string& value, const char* what, std::string& error)
    {
        if (value.find('#') != std::string::npos) {
            error = std::string(what) + " \"" + value + "\" holds a '#', which ends a field on the wire";
            return false;
        }
        text_ += value;
        text_ += '#';
        return true;
    }

    bool Fields(const std::vector<std::string>& values, const char* what, std::string& error)
    {
        Number(values.size());
        for (const std::string& value : values) {
            if (!Field(value, what, error)) {
                return false;
            }
        }
        return true;
    }

    const std::string& Text() const
    {
        return text_;
    }

private:
    std::string text_;
};

bool FillRecord(RequestType type, const std::string& body, RequestMsg& msg, std::string& error)
{
    if (body.size() > Message::REQUEST_MSG_DATA_MAX) {
        error = "body of " + std::to_string(body.size()) + " bytes doesn't fit the " +
                std::to_string(Message::REQUEST_MSG_DATA_MAX) + " bytes of a record";
        return false;
    }
    (void)memset_s(&msg, sizeof(msg), 0, sizeof(msg));
    msg.type = type;
    msg.size = body.size();
    (void)memcpy_s(msg.data, sizeof(msg.data), body.data(), body.size());
    return true;
}

bool CheckListSize(size_t count, std::string& error)
{
    if (count > Message::APP_LIST_SIZE_MAX) {
        error = std::to_string(count) + " entries exceed the " + std::to_string(Message::APP_LIST_SIZE_MAX) +
                " of one record";
        return false;
    }
    return true;
}

bool PackDynamicPara(const DynamicParaMap& dynamicPara, TextBody& body, std::string& error)
{
    // The daemon can't read a sign, and it refuses what passes these bounds.
    body.Number(dynamicPara.size());
    for (const auto& slot : dynamicPara) {
        if (slot.first < 0 || slot.first > Message::DYNAMIC_PARA_INDEX_MAX) {
            error = "dynamic parameter slot " + std::to_string(slot.first) + " is outside 0 to " +
                    std::to_string(Message::DYNAMIC_PARA_INDEX_MAX);
            return false;
        }
        if (slot.second.size() > Message::DYNAMIC_PARA_VALUE_NUM_MAX) {
            error = "dynamic parameter slot " + std::to_string(slot.first) + " holds more than " +
                    std::to_string(Message::DYNAMIC_PARA_VALUE_NUM_MAX) + " values";
            return false;
        }
        body.Number(static_cast<uint64_t>(slot.first));
        if (!body.Fields(slot.second, "dynamic parameter", error)) {
            return false;
        }
    }
    return true;
}

template <typename AppInfo>
bool PackAppEntry(const AppInfo& app, Dialect dialect, TextBody& body, std::string& error)
{
    if (app.argv.size() > Message::ARGV_SIZE_MAX) {
        error = "application \"" + app.appName + "\" has more than " + std::to_string(Message::ARGV_SIZE_MAX) +
                " arguments";
        return false;
    }
    if (!body.Field(app.appName, "application name", error) || !body.Fields(app.argv, "argument", error)) {
        return false;
    }
    if (dialect == Dialect::GENERAL) {
        return PackDynamicPara(app.dynamicPara, body, error);
    }
    if (!app.dynamicPara.empty()) {
        error = "application \"" + app.appName + "\": dynamic parameters can't travel in the zulmgr dialect";
        return false;
    }
    return true;
}

template <typename AppInfo>
bool PackAppList(RequestType type, const std::vector<AppInfo>& apps, Dialect dialect, RequestMsg& msg,
                 std::string& error)
{
    if (!CheckListSize(apps.size(), error)) {
        return false;
    }
    TextBody body;
    body.Number(apps.size());
    for (const AppInfo& app : apps) {
        if (!PackAppEntry(app, dialect, body, error)) {
            return false;
        }
    }
    return FillRecord(type, body.Text(), msg, error);
}

// The bodies that aren't lists begin with a number that the daemon drops.
constexpr uint64_t SINGLE_BODY_COUNT = 1;

} // namespace

Dialect DialectFor(const std::string& ownName)
{
    return ownName == ZUL_MGR_NAME ? Dialect::ZUL_MGR : Dialect::GENERAL;
}

bool PackStartRequest(const std::vector<StartAppInfo>& apps, Dialect dialect, RequestMsg& msg, std::string& error)
{
    return PackAppList(Message::START_APP, apps, dialect, msg, error);
}

bool PackRestartRequest(const std::vector<RestartAppInfo>& apps, Dialect dialect, RequestMsg& msg,
                        std::string& error)
{
    return PackAppList(Message::RESTART_APP, apps, dialect, msg, error);
}

bool PackTermRequest(const std::vector<TermAppInfo>& apps, RequestMsg& msg, std::string& error)
{
    if (!CheckListSize(apps.size(), error)) {
        return false;
    }
    TextBody body;
    body.Number(apps.size());
    for (const TermAppInfo& app : apps) {
        if (!body.Field(app.appName, "application name", error)) {
            return false;
        }
    }
    return FillRecord(Message::TERM_APP, body.Text(), msg, error);
}

bool PackBaseServiceStateRequest(const BaseServiceStateInfo& info, RequestMsg& msg, std::string& error)
{
    TextBody body;
    body.Number(SINGLE_BODY_COUNT);
    body.Number(info.state);
    return FillRecord(Message::BASESERVICE_STATE_REPORT, body.Text(), msg, error);
}

bool PackAppExecRequest(const AppExecInfo& info, RequestMsg& msg, std::string& error)
{
    TextBody body;
    body.Number(SINGLE_BODY_COUNT);
    if (!body.Field(info.appName, "application name", error)) {
        return false;
    }
    body.Number(info.pid);
    body.Number(info.gid);
    body.Number(info.state);
    return FillRecord(Message::APP_EXECUTION_REPORT, body.Text(), msg, error);
}

bool PackStartupCfgRequest(RequestType type, const StartupCfgInfo& info, RequestMsg& msg, std::string& error)
{
    if (type != Message::LOAD_STARTUP_CFG && type != Message::RELOAD_STARTUP_CFG) {
        error = "request type " + std::to_string(type) + " carries no start-up configuration";
        return false;
    }
    if (info.matchData.size() > Message::MATCH_COUNT_MAX) {
        error = "more than " + std::to_string(Message::MATCH_COUNT_MAX) + " match pairs";
        return false;
    }
    TextBody body;
    body.Number(SINGLE_BODY_COUNT);
    if (!body.Field(info.path, "path", error)) {
        return false;
    }
    body.Number(info.matchData.size());
    for (const auto& pair : info.matchData) {
        if (!body.Field(pair.first, "match key", error) || !body.Field(pair.second, "match value", error)) {
            return false;
        }
    }
    return FillRecord(type, body.Text(), msg, error);
}

bool PackQueryAppStateRequest(const std::vector<std::string>& names, RequestMsg& msg, std::string& error)
{
    std::string body;
    auto appendWord = [&body](uint32_t word) { body.append(reinterpret_cast<const char*>(&word), sizeof(word)); };
    appendWord(static_cast<uint32_t>(names.size()));
    for (const std::string& name : names) {
        // Past the capacity the record fails anyway; don't build a huge body first.
        if (body.size() > Message::REQUEST_MSG_DATA_MAX) {
            break;
        }
        appendWord(static_cast<uint32_t>(name.size()));
        body += name;
    }
    return FillRecord(Message::QUERY_APP_STATE, body, msg, error);
}

} // namespace Client
} // namespace Stavik
