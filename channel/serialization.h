#ifndef STAVIK_CHANNEL_SERIALIZATION_H
#define STAVIK_CHANNEL_SERIALIZATION_H

#include <cstdint>
#include <istream>
#include <string>
#include <utility>
#include <vector>

#include "channel/message.h"

// The daemon's side of the bodies: it writes the two reports and reads every
// request. Text bodies put "#" after every field and begin with a count.
// Failures are log lines and truncated results, never an error to the caller.
namespace Stavik {
namespace Serialization {

// One packed AppStateInfo text with its length in bytes.
using PackedPiece = std::pair<uint32_t, std::string>;

// The longest packed AppStateInfo, and the most piece bytes in one record: with
// a count prefix of at most five characters a report body stays within SK_PIPE_BUF_MAX.
constexpr size_t PACKED_APP_STATE_MAX = Message::SK_PIPE_BUF_MAX - 1;
constexpr size_t PIECES_PER_RECORD_MAX = Message::SK_PIPE_BUF_MAX - 5;

// Appends one piece per entry; false at the first entry that is too long, with
// the pieces before it left in place.
bool StavikPackAppStateRequest(const std::vector<Message::AppStateInfo>& infos,
                               std::vector<PackedPiece>& packedRequest);

// Sorts the pieces in place, groups them next-fit and appends one record per
// group. Oversize pieces are dropped with a warning; false only when there are no pieces.
bool StavikCombinePiecesMsg(Message::RequestType type, std::vector<PackedPiece>& packedRequest,
                            std::vector<Message::RequestMsg>& msgs);

// Appends one record with the body "count#text".
void StavikCombineMsg(Message::RequestType type, uint32_t count, const std::string& text,
                      std::vector<Message::RequestMsg>& msgs);

// The request readers fill what they can and return nothing: a caller goes on
// with what was read. Start and restart bodies of "zulmgr" carry no dynamic block.
void StavikUnpackStartRequest(const Message::RequestMsg& msg, std::vector<Message::StartAppInfo>& apps,
                              const std::string& owner);
void StavikUnpackRestartRequest(const Message::RequestMsg& msg, std::vector<Message::RestartAppInfo>& apps,
                                const std::string& owner);
bool UnPackDynamicPara(std::istream& in, Message::DynamicParaMap& dynamicPara);
void StavikUnpackTermRequest(const Message::RequestMsg& msg, std::vector<Message::TermAppInfo>& apps);
void StavikUnpackedBaseServiceStateRequest(const Message::RequestMsg& msg, Message::BaseServiceStateInfo& info);
void StavikUnpackedAppExecInfoRequest(const Message::RequestMsg& msg, Message::AppExecInfo& info);
void StavikUnpackMatchDataAndPathRequest(const Message::RequestMsg& msg, Message::StartupCfgInfo& info);

// Binary QUERY_APP_STATE body. A bad body logs the DeserializeMessage line,
// leaves `names` empty and returns false.
bool ReadQueryAppStateBody(const Message::RequestMsg& msg, std::vector<std::string>& names);

// Binary REPORT_APP_DETAIL_STATUS body, written over `msg` without clearing it
// first. An answer that doesn't fit the record fails whole: it logs the
// SerializeMessage line here, so the caller adds no line of its own, and the
// record must not be sent. An empty map writes an empty answer; the reporter
// sends nothing for it.
bool WriteAppDetailStatusBody(const Message::AppDetailStatusMap& statusMap, Message::RequestMsg& msg);

} // namespace Serialization
} // namespace Stavik

#endif
