#ifndef STAVIK_TESTS_FUZZ_RECORD_INPUT_H
#define STAVIK_TESTS_FUZZ_RECORD_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "channel/message.h"

namespace Stavik {
namespace Fuzz {

// Flags in the first byte of an input.
constexpr uint8_t OWNER_ZULMGR = 1;
constexpr uint8_t SIZE_FROM_INPUT = 2;

struct RecordInput {
    Message::RequestMsg msg;
    std::string owner;
};

// An input as a received record: byte 0 holds the flags, bytes 1 to 4 the type,
// then, with SIZE_FROM_INPUT, eight bytes of `size`, which may claim far more
// than the data; the rest is the data, cut at its capacity. Without the flag
// `size` is the number of data bytes, so that plain text bodies are easy to reach.
RecordInput ReadRecordInput(const uint8_t* bytes, size_t length);

// A broken property ends the run like a crash, so that libFuzzer keeps the input.
inline void Require(bool holds)
{
    if (!holds) {
        abort();
    }
}

// What any start or restart list must respect, whatever the body said.
template <typename AppInfo>
void CheckAppList(const std::vector<AppInfo>& apps)
{
    Require(apps.size() <= Message::APP_LIST_SIZE_MAX);
    for (const AppInfo& app : apps) {
        Require(app.argv.size() <= Message::ARGV_SIZE_MAX);
        Require(app.dynamicPara.size() <= Message::DYNAMIC_PARA_SIZE_MAX);
        for (const auto& slot : app.dynamicPara) {
            Require(slot.first <= Message::DYNAMIC_PARA_INDEX_MAX);
            Require(!slot.second.empty());
            Require(slot.second.size() <= Message::DYNAMIC_PARA_SIZE_MAX * Message::DYNAMIC_PARA_VALUE_NUM_MAX);
        }
    }
}

} // namespace Fuzz
} // namespace Stavik

#endif
