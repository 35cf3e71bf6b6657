#include "channel/serialization.h"
#include "securec.h"
#include "wire_test_support.h"

namespace Stavik {
namespace {

using Message::AppStateInfo;
using Message::RequestMsg;
using Serialization::PackedPiece;
using WireTest::Body;

class PackCombineTest : public WireTest::LoggedTest {};

// An entry whose packed text "name#1#2#3#4#" is `length` bytes long.
AppStateInfo EntryOfLength(size_t length, char fill = 'n')
{
    return AppStateInfo{std::string(length - 9, fill), 1, 2, 3, 4};
}

TEST_F(PackCombineTest, EntriesPastWhatARecordHoldsLeaveNoRecordOrStopThePacker)
{
    for (size_t length = 3956; length <= 3959; ++length) {
        std::vector<PackedPiece> pieces;
        ASSERT_TRUE(Serialization::StavikPackAppStateRequest({EntryOfLength(length)}, pieces));
        ASSERT_EQ(pieces.size(), 1u);
        EXPECT_EQ(pieces[0].first, length);
        std::vector<RequestMsg> msgs;
        EXPECT_TRUE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
        EXPECT_TRUE(msgs.empty());
        ExpectOneLine(LOG_WARNING,
                      "StavikAgent : packedRequest=" + std::to_string(length) + " bytes beyond the SK_PIPE_BUF_MAX!");
    }

    std::vector<PackedPiece> pieces;
    ASSERT_TRUE(Serialization::StavikPackAppStateRequest({EntryOfLength(3955)}, pieces));
    std::vector<RequestMsg> msgs;
    ASSERT_TRUE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_EQ(msgs[0].size, 3957u);
    ExpectNoLine();

    // The packer stops at the first entry over 3959 bytes.
    pieces.clear();
    AppStateInfo tooLong = EntryOfLength(3960, 'z');
    EXPECT_FALSE(Serialization::StavikPackAppStateRequest({EntryOfLength(20), tooLong, EntryOfLength(30)}, pieces));
    // What came before stays; the caller drops it.
    ASSERT_EQ(pieces.size(), 1u);
    EXPECT_EQ(pieces[0].second, std::string(11, 'n') + "#1#2#3#4#");
    ExpectOneLine(LOG_ERR, "StavikAgent : PackAppStateRequest failed=" + tooLong.appName +
                               ", size=3960 bytes beyond the SK_PIPE_BUF_MAX!!");
}

TEST_F(PackCombineTest, NextFitGroupsPiecesSortedByLengthThenBytes)
{
    std::vector<PackedPiece> pieces;
    ASSERT_TRUE(Serialization::StavikPackAppStateRequest(
        {EntryOfLength(1500, 'c'), EntryOfLength(1500, 'a'), EntryOfLength(1500, 'b')}, pieces));
    std::vector<RequestMsg> msgs;
    ASSERT_TRUE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
    ASSERT_EQ(msgs.size(), 2u);
    // Equal lengths come out in byte order, and the piece that overflows the first record opens the second.
    EXPECT_EQ(Body(msgs[0]), "2#" + EntryOfLength(1500, 'a').appName + "#1#2#3#4#" +
                                 EntryOfLength(1500, 'b').appName + "#1#2#3#4#");
    EXPECT_EQ(Body(msgs[1]), "1#" + EntryOfLength(1500, 'c').appName + "#1#2#3#4#");
    for (const RequestMsg& msg : msgs) {
        EXPECT_EQ(msg.type, Message::REPORT_APP_STATE);
        EXPECT_EQ(std::string(msg.data + msg.size, sizeof(msg.data) - msg.size),
                  std::string(sizeof(msg.data) - msg.size, '\0'));
    }

    // Shorter pieces come first and numbers print unsigned.
    pieces.clear();
    msgs.clear();
    ASSERT_TRUE(Serialization::StavikPackAppStateRequest(
        {{"bb", 1, 0, 0, 0}, {"ab", 1, 0, 0, 0}, {"a", static_cast<uint32_t>(-1), 5, 4, 2}}, pieces));
    ASSERT_TRUE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, pieces, msgs));
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_EQ(Body(msgs[0]), "3#ab#1#0#0#0#bb#1#0#0#0#a#4294967295#5#4#2#");
}

TEST_F(PackCombineTest, CombineFailures)
{
    std::vector<PackedPiece> none;
    std::vector<RequestMsg> msgs;
    EXPECT_FALSE(Serialization::StavikCombinePiecesMsg(Message::REPORT_APP_STATE, none, msgs));
    ExpectOneLine(LOG_ERR, "CombinePiecesMsg failed: packedRequest is empty!!");

    // A text that can't fit still goes out: its size set, its data all zeros.
    RequestMsg stale;
    memset(&stale, 0x5a, sizeof(stale));
    msgs.assign(1, stale);
    Serialization::StavikCombineMsg(Message::REPORT_APP_STATE, 1, std::string(3963, 'x'), msgs);
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[1].size, 3965u);
    EXPECT_EQ(std::string(msgs[1].data, sizeof(msgs[1].data)), std::string(sizeof(msgs[1].data), '\0'));
    ExpectOneLine(LOG_ERR, "StavikCombineMsg failed memcpy_s failed: strSize=3965 bytes, ret=" +
                               std::to_string(SECUREC_ERANGE_AND_RESET));
}

} // namespace
} // namespace Stavik
