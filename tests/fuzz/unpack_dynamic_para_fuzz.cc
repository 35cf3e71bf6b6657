#include <sstream>

#include "channel/serialization.h"
#include "fuzz_support.h"

using namespace Stavik;

// The dynamic block alone, read from the raw input as a stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t length)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(bytes), length));
    Message::DynamicParaMap dynamicPara;
    Serialization::UnPackDynamicPara(in, dynamicPara);
    Fuzz::Require(dynamicPara.size() <= Message::DYNAMIC_PARA_SIZE_MAX);
    for (const auto& slot : dynamicPara) {
        Fuzz::Require(slot.first <= Message::DYNAMIC_PARA_INDEX_MAX);
    }
    return 0;
}
