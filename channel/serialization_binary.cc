#include "channel/serialization.h"

#include "core/log.h"
#include "securec.h"

// The two binary bodies: 32-bit counts and lengths in native byte order,
// names without terminator.
namespace Stavik {
namespace Serialization {

using Message::AppDetailStatusMap;
using Message::RequestMsg;

namespace {

constexpr size_t WORD_SIZE = sizeof(uint32_t);

uint32_t LoadWord(const char* from)
{
    uint32_t word = 0;
    (void)memcpy_s(&word, sizeof(word), from, WORD_SIZE);
    return word;
}

void StoreWord(char* to, uint32_t word)
{
    (void)memcpy_s(to, WORD_SIZE, &word, sizeof(word));
}

bool ParseQueryBody(const RequestMsg& msg, std::vector<std::string>& names)
{
    size_t size = Message::BodySize(msg);
    if (size < WORD_SIZE) {
        return false;
    }
    uint32_t count = LoadWord(msg.data);
    if (count > size - WORD_SIZE) {
        return false;
    }
    names.assign(count, std::string());
    size_t cursor = WORD_SIZE;
    for (std::string& name : names) {
        if (WORD_SIZE > size - cursor) {
            return false;
        }
        uint32_t length = LoadWord(msg.data + cursor);
        cursor += WORD_SIZE;
        if (length == 0) {
            continue;
        }
        if (length > size - cursor) {
            return false;
        }
        name.assign(msg.data + cursor, length);
        cursor += length;
    }
    return true;
}

bool SerializeDetailStatus(const AppDetailStatusMap& statusMap, RequestMsg& msg)
{
    const size_t limit = sizeof(msg.data);
    StoreWord(msg.data, static_cast<uint32_t>(statusMap.size()));
    size_t cursor = WORD_SIZE;
    for (const auto& entry : statusMap) {
        const std::string& name = entry.first;
        if (WORD_SIZE > limit - cursor) {
            return false;
        }
        StoreWord(msg.data + cursor, static_cast<uint32_t>(name.size()));
        cursor += WORD_SIZE;
        if (!name.empty()) {
            if (name.size() > limit - cursor ||
                memcpy_s(msg.data + cursor, limit - cursor, name.data(), name.size()) != EOK) {
                return false;
            }
            cursor += name.size();
        }
        if (WORD_SIZE > limit - cursor) {
            return false;
        }
        StoreWord(msg.data + cursor, entry.second);
        cursor += WORD_SIZE;
    }
    msg.type = Message::REPORT_APP_DETAIL_STATUS;
    msg.size = cursor;
    return true;
}

} // namespace

bool ReadQueryAppStateBody(const RequestMsg& msg, std::vector<std::string>& names)
{
    if (!ParseQueryBody(msg, names)) {
        Syslog(LOG_ERR, "STAVIK: DeserializeMessage QUERY_APP_STATE fail.");
        names.clear();
        return false;
    }
    return true;
}

bool WriteAppDetailStatusBody(const AppDetailStatusMap& statusMap, RequestMsg& msg)
{
    if (!SerializeDetailStatus(statusMap, msg)) {
        Syslog(LOG_ERR, "STAVIK : ReportAppDetailStatus SerializeMessage failed");
        return false;
    }
    return true;
}

} // namespace Serialization
} // namespace Stavik
