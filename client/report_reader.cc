#include "client/report_reader.h"

#include <cstring>

namespace Stavik {
namespace Client {

using Message::AppDetailStatusMap;
using Message::AppStateInfo;
using Message::RequestMsg;

namespace {

// A read position inside the body that never moves past its end.
class BodyCursor {
public:
    BodyCursor(const char* data, size_t size) : data_(data), size_(size) {}

    // Text up to the next "#", which is consumed.
    bool Field(std::string& value)
    {
        const void* found = memchr(data_ + cursor_, '#', size_ - cursor_);
        if (found == nullptr) {
            return false;
        }
        size_t end = static_cast<size_t>(static_cast<const char*>(found) - data_);
        value.assign(data_ + cursor_, end - cursor_);
        cursor_ = end + 1;
        return true;
    }

    // A plain unsigned decimal that fits 32 bits, ended by "#".
    bool Number(uint32_t& value)
    {
        std::string text;
        if (!Field(text) || text.empty()) {
            return false;
        }
        uint64_t number = 0;
        for (char digit : text) {
            if (digit < '0' || digit > '9') {
                return false;
            }
            number = number * 10 + static_cast<uint64_t>(digit - '0');
            if (number > UINT32_MAX) {
                return false;
            }
        }
        value = static_cast<uint32_t>(number);
        return true;
    }

    // A 32-bit word in native byte order.
    bool Word(uint32_t& value)
    {
        if (sizeof(value) > size_ - cursor_) {
            return false;
        }
        memcpy(&value, data_ + cursor_, sizeof(value));
        cursor_ += sizeof(value);
        return true;
    }

    bool Bytes(size_t length, std::string& value)
    {
        if (length > size_ - cursor_) {
            return false;
        }
        value.assign(data_ + cursor_, length);
        cursor_ += length;
        return true;
    }

    size_t Left() const
    {
        return size_ - cursor_;
    }

private:
    const char* data_;
    size_t size_;
    size_t cursor_ = 0;
};

bool CheckRecord(const RequestMsg& msg, Message::RequestType type, const char* typeName, std::string& error)
{
    if (msg.type != type) {
        error = "record type " + std::to_string(msg.type) + " is not " + typeName;
        return false;
    }
    if (msg.size > Message::REQUEST_MSG_DATA_MAX) {
        error = "body size " + std::to_string(msg.size) + " exceeds the " +
                std::to_string(Message::REQUEST_MSG_DATA_MAX) + " bytes of a record";
        return false;
    }
    return true;
}

bool CheckConsumed(const BodyCursor& body, std::string& error)
{
    if (body.Left() != 0) {
        error = std::to_string(body.Left()) + " bytes left after the last entry";
        return false;
    }
    return true;
}

bool ParseAppStateReport(const RequestMsg& msg, std::vector<AppStateInfo>& infos, std::string& error)
{
    if (!CheckRecord(msg, Message::REPORT_APP_STATE, "REPORT_APP_STATE", error)) {
        return false;
    }
    BodyCursor body(msg.data, static_cast<size_t>(msg.size));
    uint32_t count = 0;
    if (!body.Number(count)) {
        error = "no entry count";
        return false;
    }
    // Every entry takes at least ten bytes, so a false count ends at the body's end.
    for (uint32_t i = 0; i < count; ++i) {
        AppStateInfo info;
        if (!body.Field(info.appName) || !body.Number(info.pid) || !body.Number(info.gid) ||
            !body.Number(info.state) || !body.Number(info.reason)) {
            error = "entry " + std::to_string(i) + " of " + std::to_string(count) + " is malformed or missing";
            return false;
        }
        infos.push_back(std::move(info));
    }
    return CheckConsumed(body, error);
}

bool ParseAppDetailStatus(const RequestMsg& msg, AppDetailStatusMap& statusMap, std::string& error)
{
    if (!CheckRecord(msg, Message::REPORT_APP_DETAIL_STATUS, "REPORT_APP_DETAIL_STATUS", error)) {
        return false;
    }
    BodyCursor body(msg.data, static_cast<size_t>(msg.size));
    uint32_t count = 0;
    if (!body.Word(count)) {
        error = "no entry count";
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        std::string name;
        uint32_t status = 0;
        if (!body.Word(length) || !body.Bytes(length, name) || !body.Word(status)) {
            error = "entry " + std::to_string(i) + " of " + std::to_string(count) + " is truncated";
            return false;
        }
        if (!statusMap.emplace(std::move(name), status).second) {
            error = "entry " + std::to_string(i) + " repeats a name";
            return false;
        }
    }
    return CheckConsumed(body, error);
}

} // namespace

bool ReadAppStateReport(const RequestMsg& msg, std::vector<AppStateInfo>& infos, std::string& error)
{
    infos.clear();
    if (!ParseAppStateReport(msg, infos, error)) {
        infos.clear();
        return false;
    }
    return true;
}

bool ReadAppDetailStatus(const RequestMsg& msg, AppDetailStatusMap& statusMap, std::string& error)
{
    statusMap.clear();
    if (!ParseAppDetailStatus(msg, statusMap, error)) {
        statusMap.clear();
        return false;
    }
    return true;
}

} // namespace Client
} // namespace Stavik
