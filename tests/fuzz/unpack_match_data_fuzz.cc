#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    Message::StartupCfgInfo info;
    Serialization::StavikUnpackMatchDataAndPathRequest(input.msg, info);
    // Every pair but one empty pair stands on at least two bytes of the body.
    Fuzz::Require(info.matchData.size() <= Message::BodySize(input.msg) / 2 + 1);
    return 0;
}
