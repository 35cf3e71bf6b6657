// The readers of one received record, each a fuzz target of its own: the
// target's name, given at build time, picks the reader.
#include <algorithm>
#include <cstring>
#include <map>

#include "channel/serialization.h"
#include "client/report_reader.h"
#include "client/request_packer.h"
#include "fuzz_support.h"

using namespace Stavik;
using Fuzz::Require;

namespace {

// Flags in the first byte of an input.
constexpr uint8_t OWNER_ZULMGR = 1;
constexpr uint8_t SIZE_FROM_INPUT = 2;

struct RecordInput {
    Message::RequestMsg msg;
    std::string owner;
};

// An input as a received record: byte 0 holds the flags, bytes 1 to 4 the type,
// then, with SIZE_FROM_INPUT, eight bytes of `size`, which may claim far more
// than the data; the rest is the data, cut at its capacity. Without the flag
// `size` is the number of data bytes, so that plain text bodies are easy to reach.
RecordInput ReadRecordInput(const uint8_t* bytes, size_t length)
{
    RecordInput input;
    memset(&input.msg, 0, sizeof(input.msg));
    size_t used = 0;
    auto take = [&](void* to, size_t count) {
        size_t taken = std::min(count, length - used);
        if (taken > 0) {
            memcpy(to, bytes + used, taken);
        }
        used += taken;
        return taken;
    };
    uint8_t flags = 0;
    take(&flags, sizeof(flags));
    take(&input.msg.type, sizeof(input.msg.type));
    if ((flags & SIZE_FROM_INPUT) != 0) {
        take(&input.msg.size, sizeof(input.msg.size));
    }
    size_t dataBytes = take(input.msg.data, sizeof(input.msg.data));
    if ((flags & SIZE_FROM_INPUT) == 0) {
        input.msg.size = dataBytes;
    }
    input.owner = (flags & OWNER_ZULMGR) != 0 ? "zulmgr" : "owner";
    return input;
}

// What any start or restart list must respect, whatever the body said.
template <typename AppInfo>
void CheckAppList(const std::vector<AppInfo>& apps)
{
    Require(apps.size() <= Message::APP_LIST_SIZE_MAX);
    for (const AppInfo& app : apps) {
        Require(app.argv.size() <= Message::ARGV_SIZE_MAX);
        Require(app.dynamicPara.size() <= Message::DYNAMIC_PARA_SIZE_MAX);
        for (const auto& slot : app.dynamicPara) {
            Require(slot.first <= Message::DYNAMIC_PARA_INDEX_MAX);
            Require(!slot.second.empty());
            Require(slot.second.size() <= Message::DYNAMIC_PARA_SIZE_MAX * Message::DYNAMIC_PARA_VALUE_NUM_MAX);
        }
    }
}

void UnpackStart(const RecordInput& input)
{
    std::vector<Message::StartAppInfo> apps;
    Serialization::StavikUnpackStartRequest(input.msg, apps, input.owner);
    CheckAppList(apps);
}

void UnpackRestart(const RecordInput& input)
{
    std::vector<Message::RestartAppInfo> apps;
    Serialization::StavikUnpackRestartRequest(input.msg, apps, input.owner);
    CheckAppList(apps);
}

void UnpackTerm(const RecordInput& input)
{
    std::vector<Message::TermAppInfo> apps;
    Serialization::StavikUnpackTermRequest(input.msg, apps);
    Require(apps.size() <= Message::APP_LIST_SIZE_MAX);
}

void UnpackAppExec(const RecordInput& input)
{
    Message::AppExecInfo info;
    Serialization::StavikUnpackedAppExecInfoRequest(input.msg, info);
    Require(info.appName.size() <= Message::BodySize(input.msg));
}

void UnpackBaseState(const RecordInput& input)
{
    Message::BaseServiceStateInfo info;
    Serialization::StavikUnpackedBaseServiceStateRequest(input.msg, info);
}

void UnpackMatchData(const RecordInput& input)
{
    Message::StartupCfgInfo info;
    Serialization::StavikUnpackMatchDataAndPathRequest(input.msg, info);
    // Every pair but one empty pair stands on at least two bytes of the body.
    Require(info.matchData.size() <= Message::BodySize(input.msg) / 2 + 1);
}

void ReadAppStateReport(const RecordInput& input)
{
    std::vector<Message::AppStateInfo> infos;
    std::string error;
    bool read = Client::ReadAppStateReport(input.msg, infos, error);
    Require(read ? error.empty() : infos.empty());
}

// The daemon's writer must carry whatever a valid answer held, in the same bytes.
void ReadDetailStatus(const RecordInput& input)
{
    Message::AppDetailStatusMap statusMap;
    std::string error;
    if (!Client::ReadAppDetailStatus(input.msg, statusMap, error)) {
        Require(statusMap.empty());
        return;
    }
    Message::RequestMsg again;
    Require(Serialization::WriteAppDetailStatusBody(statusMap, again));
    Require(again.size == input.msg.size);
    Message::AppDetailStatusMap reread;
    Require(Client::ReadAppDetailStatus(again, reread, error) && reread == statusMap);
}

// What was read packs again into a body the reader gives back unchanged.
void ReadQuery(const RecordInput& input)
{
    std::vector<std::string> names;
    if (!Serialization::ReadQueryAppStateBody(input.msg, names)) {
        Require(names.empty());
        return;
    }
    Message::RequestMsg again;
    std::string error;
    Require(Client::PackQueryAppStateRequest(names, again, error));
    Require(again.size <= Message::BodySize(input.msg));
    std::vector<std::string> reread;
    Require(Serialization::ReadQueryAppStateBody(again, reread) && reread == names);
}

const std::map<std::string, void (*)(const RecordInput&)> READERS = {
    {"unpack_start_fuzz", UnpackStart},
    {"unpack_restart_fuzz", UnpackRestart},
    {"unpack_term_fuzz", UnpackTerm},
    {"unpack_app_exec_fuzz", UnpackAppExec},
    {"unpack_base_state_fuzz", UnpackBaseState},
    {"unpack_match_data_fuzz", UnpackMatchData},
    {"client_app_state_report_fuzz", ReadAppStateReport},
    {"client_detail_status_fuzz", ReadDetailStatus},
    {"read_query_fuzz", ReadQuery},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    static const auto reader = READERS.at(STAVIK_FUZZ_TARGET);
    reader(ReadRecordInput(bytes, length));
    return 0;
}
