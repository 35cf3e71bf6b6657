#include "client/report_reader.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    std::vector<Message::AppStateInfo> infos;
    std::string error;
    bool read = Client::ReadAppStateReport(input.msg, infos, error);
    Fuzz::Require(read ? error.empty() : infos.empty());
    return 0;
}
