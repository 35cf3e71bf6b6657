#include "client/owner_request_json.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "channel/name_tables.h"

namespace Stavik {
namespace Client {

using Message::RequestMsg;
// Ordered, so that a request is echoed with its keys as written.
using json = nlohmann::ordered_json;

namespace {

// The longest payload the IPC library carries in one message.
constexpr uint64_t TRANSPORT_MESSAGE_MAX = 65536;
// A request nests five levels at most. A deeper text is refused while it is
// parsed, because echoing it (dump) recurses once per level and would overflow the stack.
constexpr int NESTING_MAX = 32;

struct TooDeep {
};

bool ReadStringList(const json& value, const std::string& what, std::vector<std::string>& values,
                    std::string& error)
{
    if (!value.is_array()) {
        error = what + " must be a list of strings";
        return false;
    }
    values.clear();
    for (const json& item : value) {
        if (!item.is_string()) {
            error = what + " must be a list of strings";
            return false;
        }
        values.push_back(item.get<std::string>());
    }
    return true;
}

// The members of one request object; each reader gives false with the reason.
class Fields {
public:
    Fields(const json& object, std::string& error) : object_(object), error_(error) {}

    bool String(const char* key, std::string& value, bool required)
    {
        auto found = object_.find(key);
        if (found == object_.end()) {
            return !required || Missing(key);
        }
        if (!found->is_string()) {
            return Wrong(key, "a string");
        }
        value = found->get<std::string>();
        return true;
    }

    bool Unsigned(const char* key, uint64_t max, uint64_t& value, bool required)
    {
        auto found = object_.find(key);
        if (found == object_.end()) {
            return !required || Missing(key);
        }
        if (!found->is_number_unsigned() || found->get<uint64_t>() > max) {
            return Wrong(key, ("a whole number from 0 to " + std::to_string(max)).c_str());
        }
        value = found->get<uint64_t>();
        return true;
    }

    bool Unsigned32(const char* key, uint32_t& value, bool required)
    {
        uint64_t wide = value;
        if (!Unsigned(key, UINT32_MAX, wide, required)) {
            return false;
        }
        value = static_cast<uint32_t>(wide);
        return true;
    }

    // A word of the name table, or any 32-bit number so that tests can send values the daemon doesn't know.
    bool Word(const char* key, std::string (*table)(uint64_t), uint32_t& value, bool required)
    {
        auto found = object_.find(key);
        if (found == object_.end() || !found->is_string()) {
            return Unsigned32(key, value, required);
        }
        const std::string word = found->get<std::string>();
        for (uint64_t number = 0; !table(number).empty(); ++number) {
            if (table(number) == word) {
                value = static_cast<uint32_t>(number);
                return true;
            }
        }
        return Wrong(key, "a known word or a number");
    }

    bool StringList(const char* key, std::vector<std::string>& values, bool required)
    {
        auto found = object_.find(key);
        if (found == object_.end()) {
            return !required || Missing(key);
        }
        return ReadStringList(*found, std::string("\"") + key + "\"", values, error_);
    }

    bool StringMap(const char* key, std::map<std::string, std::string>& values)
    {
        auto found = object_.find(key);
        if (found == object_.end()) {
            return true;
        }
        if (!found->is_object()) {
            return Wrong(key, "an object of strings");
        }
        for (const auto& item : found->items()) {
            if (!item.value().is_string()) {
                return Wrong(key, "an object of strings");
            }
            values[item.key()] = item.value().get<std::string>();
        }
        return true;
    }

private:
    bool Missing(const char* key)
    {
        error_ = std::string("\"") + key + "\" is missing";
        return false;
    }

    bool Wrong(const char* key, const char* what)
    {
        error_ = std::string("\"") + key + "\" must be " + what;
        return false;
    }

    const json& object_;
    std::string& error_;
};

bool ReadDialect(const json& object, Dialect ownDialect, Dialect& dialect, std::string& error)
{
    dialect = ownDialect;
    if (!object.contains("dialect")) {
        return true;
    }
    std::string word;
    if (!Fields(object, error).String("dialect", word, true)) {
        return false;
    }
    if (word == "zulmgr" || word == "general") {
        dialect = word == "zulmgr" ? Dialect::ZUL_MGR : Dialect::GENERAL;
        return true;
    }
    error = "\"dialect\" must be \"zulmgr\" or \"general\"";
    return false;
}

bool ReadSlotIndex(const std::string& key, int32_t& index)
{
    errno = 0;
    char* end = nullptr;
    long value = strtol(key.c_str(), &end, 10);
    if (key.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) {
        return false;
    }
    index = static_cast<int32_t>(value);
    return true;
}

bool ReadDynamic(const json& entry, Message::DynamicParaMap& dynamicPara, std::string& error)
{
    auto found = entry.find("dynamic");
    if (found == entry.end()) {
        return true;
    }
    if (!found->is_object()) {
        error = "\"dynamic\" must map slot numbers to lists of strings";
        return false;
    }
    for (const auto& slot : found->items()) {
        int32_t index = 0;
        if (!ReadSlotIndex(slot.key(), index)) {
            error = "dynamic slot \"" + slot.key() + "\" is not a number";
            return false;
        }
        if (!ReadStringList(slot.value(), "dynamic slot " + slot.key(), dynamicPara[index], error)) {
            return false;
        }
    }
    return true;
}

template <typename AppInfo>
bool ReadAppEntry(const json& entry, AppInfo& app, std::string& error)
{
    if (!entry.is_object()) {
        error = "an application must be an object with a \"name\"";
        return false;
    }
    Fields fields(entry, error);
    return fields.String("name", app.appName, true) && fields.StringList("argv", app.argv, false) &&
           ReadDynamic(entry, app.dynamicPara, error);
}

template <typename AppInfo, typename Pack>
bool BuildAppList(const json& object, Dialect ownDialect, OwnerRequest& request, std::string& error, Pack pack)
{
    Dialect dialect = ownDialect;
    if (!ReadDialect(object, ownDialect, dialect, error)) {
        return false;
    }
    auto found = object.find("apps");
    if (found == object.end() || !found->is_array()) {
        error = "\"apps\" must be a list of applications";
        return false;
    }
    std::vector<AppInfo> apps(found->size());
    for (size_t i = 0; i < apps.size(); ++i) {
        if (!ReadAppEntry((*found)[i], apps[i], error)) {
            error = "apps[" + std::to_string(i) + "]: " + error;
            return false;
        }
    }
    return pack(apps, dialect, request.record, error);
}

bool BuildStart(const json& object, Dialect ownDialect, OwnerRequest& request, std::string& error)
{
    return BuildAppList<Message::StartAppInfo>(object, ownDialect, request, error, PackStartRequest);
}

bool BuildRestart(const json& object, Dialect ownDialect, OwnerRequest& request, std::string& error)
{
    return BuildAppList<Message::RestartAppInfo>(object, ownDialect, request, error, PackRestartRequest);
}

bool BuildTerm(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    std::vector<std::string> names;
    if (!Fields(object, error).StringList("apps", names, true)) {
        return false;
    }
    std::vector<Message::TermAppInfo> apps;
    for (const std::string& name : names) {
        apps.push_back(Message::TermAppInfo{name});
    }
    return PackTermRequest(apps, request.record, error);
}

bool BuildState(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    Message::BaseServiceStateInfo info;
    return Fields(object, error).Word("state", GetBaseServiceStateTypeStr, info.state, true) &&
           PackBaseServiceStateRequest(info, request.record, error);
}

bool BuildExec(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    Message::AppExecInfo info;
    Fields fields(object, error);
    return fields.String("appName", info.appName, true) && fields.Unsigned32("pid", info.pid, false) &&
           fields.Unsigned32("gid", info.gid, false) &&
           fields.Word("state", GetAppExecStateStr, info.state, false) &&
           PackAppExecRequest(info, request.record, error);
}

bool BuildStartupCfg(Message::RequestType type, const json& object, OwnerRequest& request, std::string& error)
{
    Message::StartupCfgInfo info;
    Fields fields(object, error);
    request.action = OwnerRequest::Action::CALL_RECORD;
    return fields.String("path", info.path, true) && fields.StringMap("match", info.matchData) &&
           PackStartupCfgRequest(type, info, request.record, error);
}

bool BuildLoad(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    return BuildStartupCfg(Message::LOAD_STARTUP_CFG, object, request, error);
}

bool BuildReload(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    return BuildStartupCfg(Message::RELOAD_STARTUP_CFG, object, request, error);
}

bool BuildQuery(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    std::vector<std::string> names;
    return Fields(object, error).StringList("apps", names, true) &&
           PackQueryAppStateRequest(names, request.record, error);
}

// A record exactly as given, the size too, for tests of what the daemon refuses.
bool BuildRaw(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    Fields fields(object, error);
    uint32_t type = 0;
    std::string body;
    if (!fields.Unsigned32("msgType", type, true) || !fields.String("body", body, false)) {
        return false;
    }
    if (body.size() > Message::REQUEST_MSG_DATA_MAX) {
        error = "a body of " + std::to_string(body.size()) + " bytes doesn't fit the " +
                std::to_string(Message::REQUEST_MSG_DATA_MAX) + " bytes of a record";
        return false;
    }
    uint64_t size = body.size();
    if (!fields.Unsigned("size", UINT64_MAX, size, false)) {
        return false;
    }
    request.record = RequestMsg{};
    request.record.type = type;
    request.record.size = size;
    memcpy(request.record.data, body.data(), body.size());
    return true;
}

bool BuildRawBytes(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    uint64_t length = 0;
    if (!Fields(object, error).Unsigned("length", TRANSPORT_MESSAGE_MAX, length, true)) {
        return false;
    }
    request.action = OwnerRequest::Action::SEND_BYTES;
    request.bytes.assign(static_cast<size_t>(length), '\0');
    return true;
}

bool BuildSleep(const json& object, Dialect, OwnerRequest& request, std::string& error)
{
    request.action = OwnerRequest::Action::SLEEP;
    return Fields(object, error).Unsigned32("ms", request.sleepMs, true);
}

using Builder = std::function<bool(const json&, Dialect, OwnerRequest&, std::string&)>;

const std::map<std::string, Builder>& Builders()
{
    static const std::map<std::string, Builder> builders = {
        {"start", BuildStart},       {"restart", BuildRestart}, {"term", BuildTerm},   {"state", BuildState},
        {"exec", BuildExec},         {"load", BuildLoad},       {"reload", BuildReload}, {"query", BuildQuery},
        {"raw", BuildRaw},           {"raw-bytes", BuildRawBytes}, {"sleep", BuildSleep},
    };
    return builders;
}

bool ParseObject(const json& object, Dialect ownDialect, OwnerRequest& request, std::string& error)
{
    if (!object.is_object()) {
        error = "a request must be a JSON object";
        return false;
    }
    std::string type;
    if (!Fields(object, error).String("type", type, true)) {
        return false;
    }
    auto builder = Builders().find(type);
    if (builder == Builders().end()) {
        error = "unknown request type \"" + type + "\"";
        return false;
    }
    OwnerRequest built;
    built.type = type;
    built.json = object.dump(-1, ' ', false, json::error_handler_t::replace);
    if (!builder->second(object, ownDialect, built, error)) {
        error = type + ": " + error;
        return false;
    }
    request = std::move(built);
    return true;
}

} // namespace

bool ParseOwnerRequest(const std::string& text, Dialect ownDialect, OwnerRequest& request, std::string& error)
{
    try {
        json parsed = json::parse(text, [](int depth, json::parse_event_t, json&) {
            if (depth > NESTING_MAX) {
                throw TooDeep{};
            }
            return true;
        });
        return ParseObject(parsed, ownDialect, request, error);
    } catch (const json::exception& caught) {
        error = std::string("not a JSON request: ") + caught.what();
        return false;
    } catch (const TooDeep&) {
        error = "not a JSON request: nested deeper than " + std::to_string(NESTING_MAX) + " levels";
        return false;
    }
}

} // namespace Client
} // namespace Stavik
