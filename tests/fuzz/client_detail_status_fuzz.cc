#include "channel/serialization.h"
#include "client/report_reader.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    Message::AppDetailStatusMap statusMap;
    std::string error;
    if (!Client::ReadAppDetailStatus(input.msg, statusMap, error)) {
        Fuzz::Require(statusMap.empty());
        return 0;
    }
    // The daemon's writer must carry whatever a valid answer held, in the same bytes.
    Message::RequestMsg again;
    Fuzz::Require(Serialization::WriteAppDetailStatusBody(statusMap, again));
    Fuzz::Require(again.size == input.msg.size);
    Message::AppDetailStatusMap reread;
    Fuzz::Require(Client::ReadAppDetailStatus(again, reread, error));
    Fuzz::Require(reread == statusMap);
    return 0;
}
