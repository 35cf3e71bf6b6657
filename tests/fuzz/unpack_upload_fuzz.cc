#include <cstring>

#include "channel/serialization_upload.h"
#include "fuzz_support.h"

using namespace SkUpload;

// Bytes 0 to 7 are the record's `size`, which may claim more than the data;
// the rest is the body. The group lists read are then packed as a response.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    SkUploadRequest req{};
    memcpy(&req.size, bytes, length < sizeof(req.size) ? length : sizeof(req.size));
    if (length > sizeof(req.size)) {
        size_t body = length - sizeof(req.size);
        memcpy(req.data, bytes + sizeof(req.size), body < SK_UPLOAD_DATA_SIZE ? body : SK_UPLOAD_DATA_SIZE);
    }
    LoadAppInfo info;
    if (!UnPackInfoRequest(req, info)) {
        return 0;
    }
    Stavik::Fuzz::Require(info.rwGroups.size() <= SK_UPLOAD_GROUPS_MAX);
    Stavik::Fuzz::Require(info.allocGroups.size() <= SK_UPLOAD_GROUPS_MAX);
    std::vector<std::string> names = info.rwGroups;
    names.insert(names.end(), info.allocGroups.begin(), info.allocGroups.end());
    std::string out;
    PackResponseToSkupload(info.isResume, false, names, info.receivedMemGroupsNum, out);
    if (names.size() > SK_UPLOAD_GROUPS_MAX || info.receivedMemGroupsNum > names.size()) {
        Stavik::Fuzz::Require(out.empty());
        return 0;
    }
    UploadResponse response;
    Stavik::Fuzz::Require(ReadUploadResponse(out, response));
    Stavik::Fuzz::Require(response.names.size() + response.remaining == names.size() - info.receivedMemGroupsNum);
    Stavik::Fuzz::Require(out.size() <= SK_UPLOAD_DATA_SIZE);
    return 0;
}
