#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    Message::AppExecInfo info;
    Serialization::StavikUnpackedAppExecInfoRequest(input.msg, info);
    Fuzz::Require(info.appName.size() <= Message::BodySize(input.msg));
    return 0;
}
