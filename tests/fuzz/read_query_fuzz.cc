#include "channel/serialization.h"
#include "client/request_packer.h"
#include "record_input.h"

using namespace Stavik;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    Fuzz::RecordInput input = Fuzz::ReadRecordInput(bytes, length);
    std::vector<std::string> names;
    if (!Serialization::ReadQueryAppStateBody(input.msg, names)) {
        Fuzz::Require(names.empty());
        return 0;
    }
    // What was read packs again into a body the reader gives back unchanged.
    Message::RequestMsg again;
    std::string error;
    Fuzz::Require(Client::PackQueryAppStateRequest(names, again, error));
    Fuzz::Require(again.size <= Message::BodySize(input.msg));
    std::vector<std::string> reread;
    Fuzz::Require(Serialization::ReadQueryAppStateBody(again, reread));
    Fuzz::Require(reread == names);
    return 0;
}
