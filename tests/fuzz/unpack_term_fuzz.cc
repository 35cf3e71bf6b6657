#include "channel/serialization.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    std::vector<Message::TermAppInfo> apps;
    Serialization::StavikUnpackTermRequest(input.msg, apps);
    Fuzz::Require(apps.size() <= Message::APP_LIST_SIZE_MAX);
    return 0;
}
