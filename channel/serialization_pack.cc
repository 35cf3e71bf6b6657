#include "channel/serialization.h"

#include <algorithm>

#include "core/log.h"
#include "securec.h"

namespace Stavik {
namespace Serialization {

using Message::AppStateInfo;
using Message::RequestMsg;
using Message::RequestType;

namespace {

std::string PackAppState(const AppStateInfo& info)
{
    return info.appName + "#" + std::to_string(info.pid) + "#" + std::to_string(info.gid) + "#" +
           std::to_string(info.state) + "#" + std::to_string(info.reason) + "#";
}

// Next-fit over the sorted pieces: the number of pieces in each record, stopping
// at the first piece that can't fit any record.
std::vector<uint32_t> GroupPieces(const std::vector<PackedPiece>& packedRequest)
{
    std::vector<uint32_t> groupCounts;
    uint64_t sum = 0;
    uint32_t count = 0;
    size_t cursor = 0;
    while (cursor < packedRequest.size()) {
        uint32_t bytes = packedRequest[cursor].first;
        if (bytes > PIECES_PER_RECORD_MAX) {
            Syslog(LOG_WARNING, "StavikAgent : packedRequest=%u bytes beyond the SK_PIPE_BUF_MAX!", bytes);
            break;
        }
        sum += bytes;
        if (sum <= PIECES_PER_RECORD_MAX) {
            ++count;
            ++cursor;
        } else {
            groupCounts.push_back(count);
            sum = 0;
            count = 0;
        }
    }
    if (count > 0) {
        groupCounts.push_back(count);
    }
    return groupCounts;
}

} // namespace

bool StavikPackAppStateRequest(const std::vector<AppStateInfo>& infos, std::vector<PackedPiece>& packedRequest)
{
    for (const AppStateInfo& info : infos) {
        std::string piece = PackAppState(info);
        if (piece.size() > PACKED_APP_STATE_MAX) {
            Syslog(LOG_ERR, "StavikAgent : PackAppStateRequest failed=%s, size=%lu bytes beyond the SK_PIPE_BUF_MAX!!",
                   info.appName.c_str(), static_cast<unsigned long>(piece.size()));
            return false;
        }
        uint32_t bytes = static_cast<uint32_t>(piece.size());
        packedRequest.emplace_back(bytes, std::move(piece));
    }
    return true;
}

bool StavikCombinePiecesMsg(RequestType type, std::vector<PackedPiece>& packedRequest, std::vector<RequestMsg>& msgs)
{
    if (packedRequest.empty()) {
        Syslog(LOG_ERR, "CombinePiecesMsg failed: packedRequest is empty!!");
        return false;
    }
    // Smallest first, so the first oversize piece means all behind it are oversize too.
    std::sort(packedRequest.begin(), packedRequest.end());
    size_t first = 0;
    for (uint32_t groupCount : GroupPieces(packedRequest)) {
        std::string text;
        for (size_t i = first; i < first + groupCount; ++i) {
            text += packedRequest[i].second;
        }
        StavikCombineMsg(type, groupCount, text, msgs);
        first += groupCount;
    }
    return true;
}

void StavikCombineMsg(RequestType type, uint32_t count, const std::string& text, std::vector<RequestMsg>& msgs)
{
    std::string body = std::to_string(count) + "#" + text;
    RequestMsg msg;
    // The whole record, gaps included, so that no stale memory goes on the wire.
    (void)memset_s(&msg, sizeof(msg), 0, sizeof(msg));
    msg.type = type;
    msg.size = body.size();
    errno_t ret = memcpy_s(msg.data, sizeof(msg.data), body.data(), body.size());
    if (ret != EOK) {
        Syslog(LOG_ERR, "StavikCombineMsg failed memcpy_s failed: strSize=%lu bytes, ret=%d",
               static_cast<unsigned long>(body.size()), ret);
    }
    msgs.push_back(msg);
}

} // namespace Serialization
} // namespace Stavik
