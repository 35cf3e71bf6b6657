#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    std::vector<Message::StartAppInfo> apps;
    Serialization::StavikUnpackStartRequest(input.msg, apps, input.owner);
    Fuzz::CheckAppList(apps);
    return 0;
}
