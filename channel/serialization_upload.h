#ifndef STAVIK_CHANNEL_SERIALIZATION_UPLOAD_H
#define STAVIK_CHANNEL_SERIALIZATION_UPLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The records of the upload server, through which a process the daemon did not
// start announces itself. Shared by the daemon and the client tool.
namespace SkUpload {

constexpr size_t SK_UPLOAD_DATA_SIZE = 3960;
constexpr uint64_t SK_UPLOAD_GROUPS_MAX = 1024;
// Room of a response for the names: what the fixed fields leave of the body.
constexpr uint64_t SK_UPLOAD_RESPONSE_ROOM = 3959;
constexpr uint64_t SK_UPLOAD_RESPONSE_FIXED = 17;

// Sent as raw memory; `size` counts the meaningful bytes of `data`.
struct SkUploadRequest {
    uint64_t size;
    char data[SK_UPLOAD_DATA_SIZE];
};
static_assert(sizeof(SkUploadRequest) == 3968, "SkUploadRequest layout is binding");

struct LoadAppInfo {
    std::string binPath;
    std::string pidAppName;
    std::vector<std::string> reservedGroups;
    std::vector<std::string> rwGroups;
    std::vector<std::string> allocGroups;
    int32_t pid = 0;
    uint32_t gid = 0;
    bool isResume = false;
    uint64_t receivedMemGroupsNum = 0;
};

// Reads the body; false, with a log line, when a group list is over its limit.
bool UnPackInfoRequest(const SkUploadRequest& req, LoadAppInfo& info);
// The answer text: ok, white-listed, then as many names from `received` on as
// fit one response, and how many remain. Empty when the list or `received` is
// out of bounds.
void PackResponseToSkupload(bool ok, bool isWhiteListed, const std::vector<std::string>& names, uint64_t received,
                            std::string& out);

// The client's side. False when the body would not fit the record.
bool PackInfoRequest(const LoadAppInfo& info, SkUploadRequest& req);

struct UploadResponse {
    bool ok = false;
    bool isWhiteListed = false;
    std::vector<std::string> names;
    uint64_t remaining = 0;
};
// False for an empty or malformed answer.
bool ReadUploadResponse(const std::string& text, UploadResponse& response);

} // namespace SkUpload

#endif
