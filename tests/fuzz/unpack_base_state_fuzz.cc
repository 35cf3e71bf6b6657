#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    Message::BaseServiceStateInfo info;
    Serialization::StavikUnpackedBaseServiceStateRequest(input.msg, info);
    return 0;
}
