#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    std::vector<Message::RestartAppInfo> apps;
    Serialization::StavikUnpackRestartRequest(input.msg, apps, input.owner);
    Fuzz::CheckAppList(apps);
    return 0;
}
