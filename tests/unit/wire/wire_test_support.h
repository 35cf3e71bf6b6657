#ifndef STAVIK_TESTS_UNIT_WIRE_WIRE_TEST_SUPPORT_H
#define STAVIK_TESTS_UNIT_WIRE_WIRE_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "channel/message.h"
#include "core/log.h"

namespace Stavik {
namespace WireTest {

// A record as an owner would send it: zeroed, with the body at the front of `data`.
inline Message::RequestMsg TextRecord(uint32_t type, const std::string& body)
{
    Message::RequestMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.type = type;
    msg.size = body.size();
    memcpy(msg.data, body.data(), std::min(body.size(), sizeof(msg.data)));
    return msg;
}

inline Message::RequestMsg WithSize(Message::RequestMsg msg, uint64_t size)
{
    msg.size = size;
    return msg;
}

inline std::string Body(const Message::RequestMsg& msg)
{
    return std::string(msg.data, Message::BodySize(msg));
}

// Every member of each entry, as "name:argv,...:slot=value,...".
template <typename AppInfo>
inline std::vector<std::string> Rendered(const std::vector<AppInfo>& apps)
{
    std::vector<std::string> texts;
    for (const AppInfo& app : apps) {
        std::string text = app.appName + ":";
        for (const std::string& arg : app.argv) {
            text += arg + ",";
        }
        for (const auto& slot : app.dynamicPara) {
            text += ":" + std::to_string(slot.first) + "=";
            for (const std::string& value : slot.second) {
                text += value + ",";
            }
        }
        texts.push_back(text);
    }
    return texts;
}

// Captures the log of each test, so that lines can be asserted word for word.
class LoggedTest : public ::testing::Test {
protected:
    void SetUp() override { LogCapture::Begin(); }
    void TearDown() override { LogCapture::End(); }

    static std::vector<CapturedLine> TakeLines()
    {
        std::vector<CapturedLine> lines = LogCapture::Lines();
        LogCapture::Begin();
        return lines;
    }

    // The log since the last look holds exactly this one line.
    static void ExpectOneLine(int level, const std::string& text)
    {
        std::vector<CapturedLine> lines = TakeLines();
        ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? std::string("no line") : lines[0].text);
        EXPECT_EQ(lines[0].level, level);
        EXPECT_EQ(lines[0].text, text);
    }

    static void ExpectNoLine()
    {
        std::vector<CapturedLine> lines = TakeLines();
        EXPECT_TRUE(lines.empty()) << lines[0].text;
    }
};

} // namespace WireTest
} // namespace Stavik

#endif
