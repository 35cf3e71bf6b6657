#include <algorithm>

#include "channel/serialization.h"
#include "client/report_reader.h"
#include "fuzz_support.h"

using namespace Stavik;

namespace {

// Entries from the input: a two-byte name length, the name, then pid, gid,
// state and reason bytes. A "#" in a name would end the field on the wire, and
// the daemon doesn't escape it, so the names here have none.
std::vector<Message::AppStateInfo> ReadEntries(const uint8_t* bytes, size_t length)
{
    std::vector<Message::AppStateInfo> infos;
    size_t cursor = 0;
    while (length - cursor >= 6) {
        size_t nameLength = std::min<size_t>((bytes[cursor] << 8 | bytes[cursor + 1]) % 4096, length - cursor - 6);
        cursor += 2;
        Message::AppStateInfo info;
        info.appName.assign(reinterpret_cast<const char*>(bytes + cursor), nameLength);
        std::replace(info.appName.begin(), info.appName.end(), '#', '_');
        cursor += nameLength;
        info.pid = bytes[cursor] * 16777619u;
        info.gid = bytes[cursor + 1];
        info.state = bytes[cursor + 2] % 6;
        info.reason = bytes[cursor + 3] % 3;
        cursor += 4;
        infos.push_back(std::move(info));
    }
    return infos;
}

} // namespace

// Whatever the daemon combines into report records, an owner reads back whole.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    std::vector<Message::AppStateInfo> infos = ReadEntries(bytes, length);
    std::vector<Serialization::PackedPiece> pieces;
    if (infos.empty() || !Serialization::StavikPackAppStateRequest(infos, pieces)) {
        return 0;
    }
    std::vector<Message::RequestMsg> msgs;
    Fuzz::Require(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
    size_t fitting = static_cast<size_t>(std::count_if(pieces.begin(), pieces.end(), [](const auto& piece) {
        return piece.first <= Serialization::PIECES_PER_RECORD_MAX;
    }));
    size_t received = 0;
    for (const Message::RequestMsg& msg : msgs) {
        Fuzz::Require(msg.size <= Message::SK_PIPE_BUF_MAX);
        std::vector<Message::AppStateInfo> read;
        std::string error;
        Fuzz::Require(Client::ReadAppStateReport(msg, read, error));
        received += read.size();
    }
    Fuzz::Require(received == fitting);
    return 0;
}
