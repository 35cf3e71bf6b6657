#include "channel/serialization.h"
#include "wire_test_support.h"

namespace Stavik {
namespace {

using Message::AppDetailStatusMap;
using Message::RequestMsg;

const char* const DESERIALIZE_FAILED = "STAVIK: DeserializeMessage QUERY_APP_STATE fail.";
const char* const SERIALIZE_FAILED = "STAVIK : ReportAppDetailStatus SerializeMessage failed";

class BinaryBodyTest : public WireTest::LoggedTest {};

std::string Word(uint32_t value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

RequestMsg QueryRecord(const std::string& body)
{
    return WireTest::TextRecord(Message::QUERY_APP_STATE, body);
}

TEST_F(BinaryBodyTest, QueryBodyIsReadWithinItsSizeAndABadOneGivesAnEmptyList)
{
    std::vector<std::string> names;
    const std::string good = Word(3) + Word(4) + "appA" + Word(0) + Word(1) + "b";
    EXPECT_TRUE(Serialization::ReadQueryAppStateBody(QueryRecord(good), names));
    EXPECT_EQ(names, (std::vector<std::string>{"appA", "", "b"}));

    // A size past the data is taken as the data: the body is still read.
    EXPECT_TRUE(Serialization::ReadQueryAppStateBody(WireTest::WithSize(QueryRecord(good), UINT64_MAX), names));
    EXPECT_EQ(names.size(), 3u);

    // An empty last name ends the body with its length word.
    EXPECT_TRUE(Serialization::ReadQueryAppStateBody(QueryRecord(Word(2) + Word(1) + "a" + Word(0)), names));
    EXPECT_EQ(names, (std::vector<std::string>{"a", ""}));

    EXPECT_TRUE(Serialization::ReadQueryAppStateBody(QueryRecord(Word(0)), names));
    EXPECT_TRUE(names.empty());
    ExpectNoLine();

    const RequestMsg shortBody = QueryRecord(Word(1) + Word(1) + "a");
    const std::vector<std::pair<std::string, RequestMsg>> cases = {
        {"size 3", WireTest::WithSize(shortBody, 3)},
        {"size 0", QueryRecord("")},
        {"count above size", QueryRecord(Word(5) + "abcd")},
        {"length word cut", QueryRecord(Word(2) + Word(1) + "a" + "xy")},
        {"name cut", WireTest::WithSize(shortBody, shortBody.size - 1)},
        {"length past the data", QueryRecord(Word(1) + Word(0xFFFFFFFF) + "a")},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.first);
        std::vector<std::string> names = {"stale"};
        EXPECT_FALSE(Serialization::ReadQueryAppStateBody(testCase.second, names));
        EXPECT_TRUE(names.empty());
        ExpectOneLine(LOG_ERR, DESERIALIZE_FAILED);
    }
}

TEST_F(BinaryBodyTest, DetailStatusIsWrittenInNameOrderWithoutClearingOrFailsWhole)
{
    RequestMsg msg;
    memset(&msg, 0xab, sizeof(msg));
    ASSERT_TRUE(Serialization::WriteAppDetailStatusBody({{"b", 2}, {"a", 0}, {"", 1}}, msg));
    EXPECT_EQ(msg.type, Message::REPORT_APP_DETAIL_STATUS);
    ASSERT_EQ(msg.size, 4u + 8u + 9u + 9u);
    const std::string expected = Word(3) + Word(0) + Word(1) + Word(1) + "a" + Word(0) + Word(1) + "b" + Word(2);
    EXPECT_EQ(WireTest::Body(msg), expected);
    EXPECT_EQ(static_cast<unsigned char>(msg.data[msg.size]), 0xab);

    ASSERT_TRUE(Serialization::WriteAppDetailStatusBody({}, msg));
    EXPECT_EQ(msg.size, 4u);
    ExpectNoLine();

    // One entry takes 4 + 4 + name + 4 bytes of the 3964; what does not fit fails whole.
    memset(&msg, 0, sizeof(msg));
    ASSERT_TRUE(Serialization::WriteAppDetailStatusBody({{std::string(3952, 'n'), 1}}, msg));
    EXPECT_EQ(msg.size, sizeof(msg.data));

    const std::vector<AppDetailStatusMap> tooBig = {
        {{std::string(3953, 'n'), 1}},             // no room for the status
        {{std::string(3957, 'n'), 1}},             // no room for the name
        {{std::string(3949, 'a'), 1}, {"b", 2}},   // no room for the second length
        {{std::string(3944, 'a'), 1}, {"bcdef", 2}}, // second name cut
    };
    for (const AppDetailStatusMap& statusMap : tooBig) {
        memset(&msg, 0, sizeof(msg));
        EXPECT_FALSE(Serialization::WriteAppDetailStatusBody(statusMap, msg));
        EXPECT_EQ(msg.type, 0u);
        EXPECT_EQ(msg.size, 0u);
        ExpectOneLine(LOG_ERR, SERIALIZE_FAILED);
    }
}

} // namespace
} // namespace Stavik
