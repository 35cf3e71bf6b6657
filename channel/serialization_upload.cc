#include "channel/serialization_upload.h"

#include <cstring>
#include <locale>
#include <sstream>

#include "core/log.h"

namespace SkUpload {
namespace {

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

bool ReadGroups(std::istream& in, std::vector<std::string>& groups, const char* what)
{
    uint64_t count = 0;
    ReadNumber(in, count);
    if (count > SK_UPLOAD_GROUPS_MAX) {
        Stavik::Syslog(LOG_ERR, "UnPackInfoRequest: %s=%lu is bigger than %lu", what, count, SK_UPLOAD_GROUPS_MAX);
        return false;
    }
    groups.resize(count);
    for (std::string& group : groups) {
        ReadString(in, group);
    }
    return true;
}

void AddField(std::string& out, const std::string& field)
{
    out += field;
    out += '#';
}

} // namespace

bool UnPackInfoRequest(const SkUploadRequest& req, LoadAppInfo& info)
{
    size_t size = req.size < SK_UPLOAD_DATA_SIZE ? static_cast<size_t>(req.size) : SK_UPLOAD_DATA_SIZE;
    std::istringstream in(std::string(req.data, size));
    in.imbue(std::locale::classic());
    ReadString(in, info.pidAppName);
    ReadString(in, info.binPath);
    ReadNumber(in, info.pid);
    ReadNumber(in, info.gid);
    if (!ReadGroups(in, info.rwGroups, "rwGroupsSize") || !ReadGroups(in, info.allocGroups, "allocGroupsSize")) {
        return false;
    }
    ReadNumber(in, info.isResume);
    ReadNumber(in, info.receivedMemGroupsNum);
    return true;
}

void PackResponseToSkupload(bool ok, bool isWhiteListed, const std::vector<std::string>& names, uint64_t received,
                            std::string& out)
{
    out.clear();
    if (names.size() > SK_UPLOAD_GROUPS_MAX || received > names.size()) {
        Stavik::Syslog(LOG_ERR, "sharepool mem group size=%lu is invalid, should be at [%lu, %u]", names.size(),
                       received, static_cast<uint32_t>(SK_UPLOAD_GROUPS_MAX));
        return;
    }
    AddField(out, ok ? "1" : "0");
    AddField(out, isWhiteListed ? "1" : "0");
    uint64_t length = 0;
    size_t end = static_cast<size_t>(received);
    for (; end < names.size(); ++end) {
        length += names[end].size() + 1;
        if (length + SK_UPLOAD_RESPONSE_FIXED > SK_UPLOAD_RESPONSE_ROOM) {
            break;
        }
    }
    const uint64_t sent = end - received;
    AddField(out, std::to_string(sent));
    for (size_t i = static_cast<size_t>(received); i < end; ++i) {
        AddField(out, names[i]);
    }
    AddField(out, std::to_string(names.size() - received - sent));
    Stavik::Syslog(LOG_INFO,
                   "PackResponseToSkupload size=%lu bytes, receivedMemGroupsNum=%lu, sentMemGroups=%lu, pack info=%s",
                   out.size(), received, sent, out.c_str());
}

bool PackInfoRequest(const LoadAppInfo& info, SkUploadRequest& req)
{
    std::string body;
    AddField(body, info.pidAppName);
    AddField(body, info.binPath);
    AddField(body, std::to_string(info.pid));
    AddField(body, std::to_string(info.gid));
    for (const std::vector<std::string>* groups : {&info.rwGroups, &info.allocGroups}) {
        AddField(body, std::to_string(groups->size()));
        for (const std::string& group : *groups) {
            AddField(body, group);
        }
    }
    AddField(body, info.isResume ? "1" : "0");
    AddField(body, std::to_string(info.receivedMemGroupsNum));
    memset(&req, 0, sizeof(req));
    if (body.size() > SK_UPLOAD_DATA_SIZE) {
        return false;
    }
    req.size = body.size();
    memcpy(req.data, body.data(), body.size());
    return true;
}

bool ReadUploadResponse(const std::string& text, UploadResponse& response)
{
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    std::string ok;
    std::string white;
    ReadString(in, ok);
    ReadString(in, white);
    uint64_t count = 0;
    ReadNumber(in, count);
    if (!in || count > SK_UPLOAD_GROUPS_MAX) {
        return false;
    }
    response.ok = ok == "1";
    response.isWhiteListed = white == "1";
    response.names.resize(count);
    for (std::string& name : response.names) {
        ReadString(in, name);
    }
    response.remaining = 0;
    ReadNumber(in, response.remaining);
    return static_cast<bool>(in);
}

} // namespace SkUpload
