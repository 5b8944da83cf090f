// The layout of the client message, and how its trailer is found.
#include "client/message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kArea = 8192;

std::size_t WireOffset(std::size_t offset) { return offset - offsetof(ClientMessage, Length); }
std::size_t CblOffset(std::size_t offset) {
  return WireOffset(offsetof(ClientMessage, CBL)) + offset;
}

// A record full of a byte, so that everything that must be made zero shows.
std::unique_ptr<ClientMessage> Filled(int value) {
  auto msg = std::make_unique<ClientMessage>();
  std::memset(static_cast<void*>(msg.get()), value, sizeof *msg);
  return msg;
}

// Puts the counts of four strings, each behind the one before, wherever they fit the area.
void PutCounts(ClientMessage* msg, const std::vector<std::uint16_t>& counts) {
  std::size_t at = 52;
  for (const std::uint16_t count : counts) {
    Put(Wire(msg), WireField<std::uint16_t>{at}, count);
    at += 2U + count + count % 2U;
  }
}

bool AllBytesAre(const ClientMessage& msg, std::size_t from, std::size_t to, int value) {
  for (std::size_t i = from; i < to; ++i)
    if (Wire(&msg)[i] != value) return false;
  return true;
}

TEST(Message, EveryFieldLiesAtItsOffset) {
  EXPECT_EQ(offsetof(ClientMessage, Length), 8U);
  EXPECT_EQ(WireOffset(offsetof(ClientMessage, TaskName)), 4U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, CodErr)), 8U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, Prior)), 12U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, NumChan)), 14U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, Uninterpreted)), 16U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, Command)), 20U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, Node)), 24U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, RowId)), 32U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, RowCount)), 36U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, PrzExe)), 40U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, SysErr)), 44U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, LnBufRow)), 48U);
  EXPECT_EQ(CblOffset(offsetof(Cbl, DbcApiCode)), 50U);
  EXPECT_EQ(WireOffset(offsetof(ClientMessage, Strings)), 52U);
}

TEST(Message, TheRecordKeepsItsOwnFieldsBehindTheArea) {
  EXPECT_EQ(sizeof(ClientMessage{}.Reserved), 8U);
  EXPECT_EQ(WireOffset(offsetof(ClientMessage, TrailerOffset)), kArea);
  EXPECT_GT(offsetof(ClientMessage, ClientSocket), offsetof(ClientMessage, TrailerOffset));
}

TEST(Message, TheTrailerFieldsLieAtTheirOffsets) {
  EXPECT_EQ(kTrailerSize, 48U);
  EXPECT_EQ(kTrailerTaskName.Offset, 0U);
  EXPECT_EQ(kTrailerFirstHalfWord.Offset, 0U);
  EXPECT_EQ(kTrailerLinkSocket.Offset, 4U);
  EXPECT_EQ(kTrailerAstInd.Offset, 12U);
  EXPECT_EQ(kTrailerMark.Offset, 46U);
}

TEST(Message, FourEmptyStringsGiveTheSmallestMessageWhateverLengthItHad) {
  for (const std::uint32_t length : {0U, 108U, 8188U, 0xFFFFFFFFU}) {
    const auto msg = Filled(0);
    msg->Length = length;
    ASSERT_EQ(LocateTrailer(msg.get(), 108, kMessageMax), 0);
    EXPECT_EQ(msg->TrailerOffset, 52);
    EXPECT_EQ(msg->Length, 104U);
    EXPECT_EQ(Trailer(msg.get()), Wire(msg.get()) + 60);
  }
}

TEST(Message, AnOddStringHasAPadByte) {
  struct Case {
    std::vector<std::uint16_t> Counts;
    unsigned Size;
  };
  const Case cases[] = {{{0, 0, 0, 0}, 8},     {{1, 0, 0, 0}, 10}, {{2, 0, 0, 0}, 10},
                        {{3, 0, 0, 0}, 12},    {{0, 0, 0, 1}, 10}, {{0, 0, 0, 2}, 10},
                        {{1, 1, 1, 1}, 16},    {{2, 2, 2, 2}, 16}, {{5, 4, 3, 2}, 24},
                        {{999, 0, 1, 0}, 1010}};
  for (const Case& one : cases) {
    const auto msg = Filled(0);
    PutCounts(msg.get(), one.Counts);
    ASSERT_EQ(LocateTrailer(msg.get(), kArea, kArea), 0);
    EXPECT_EQ(msg->TrailerOffset, 44 + one.Size) << testing::PrintToString(one.Counts);
    EXPECT_EQ(msg->Length, 96 + one.Size) << "the whole size less 4";
  }
}

TEST(Message, ACountedStringOccupiesItsCountItsTextAndThePadding) {
  EXPECT_EQ(CountedSize(0), 2U);
  EXPECT_EQ(CountedSize(1), 4U);
  EXPECT_EQ(CountedSize(2), 4U);
  EXPECT_EQ(CountedSize(27), 30U);
  EXPECT_EQ(CountedSize(0xFFFF), 65538U);
}

TEST(Message, BytesThatDidNotComeCountAsZero) {
  const auto msg = Filled(0xDD);
  PutCounts(msg.get(), {6});
  ASSERT_EQ(LocateTrailer(msg.get(), 56, kMessageMax), 0) << "two bytes of the text have come";
  EXPECT_EQ(msg->TrailerOffset, 44 + 14);
  EXPECT_TRUE(AllBytesAre(*msg, 54, 56, 0xDD)) << "bytes that came stay";
  EXPECT_TRUE(AllBytesAre(*msg, 56, 66 + kTrailerSize, 0));
}

TEST(Message, ACountOfWhichOneByteCameIsCompletedWithZero) {
  const auto msg = Filled(0xDD);
  Wire(msg.get())[52] = 2;
  ASSERT_EQ(LocateTrailer(msg.get(), 53, kMessageMax), 0);
  EXPECT_EQ(msg->TrailerOffset, 44 + 10);
}

TEST(Message, AMessageWithoutStringsHasFourEmptyOnes) {
  const auto msg = Filled(0xDD);
  ASSERT_EQ(LocateTrailer(msg.get(), 20, kMessageMax), 0);
  EXPECT_EQ(msg->TrailerOffset, 52);
  EXPECT_TRUE(AllBytesAre(*msg, 20, 108, 0));
  EXPECT_TRUE(AllBytesAre(*msg, 8, 20, 0xDD));
}

TEST(Message, ATrailerThatFitsExactlyIsFound) {
  const auto msg = Filled(0);
  PutCounts(msg.get(), {static_cast<std::uint16_t>(kMessageMax - 108)});
  ASSERT_EQ(LocateTrailer(msg.get(), kMessageMax, kMessageMax), 0);
  EXPECT_EQ(msg->Length, kMessageMax - 4);
}

TEST(Message, AMessageThatLeavesItsRoomIsRefusedAndStaysAsItWas) {
  for (const std::vector<std::uint16_t>& counts :
       {std::vector<std::uint16_t>{kMessageMax - 106}, std::vector<std::uint16_t>{0xFFFF},
        std::vector<std::uint16_t>{0, 0, 0, kMessageMax - 106}, std::vector<std::uint16_t>{8130},
        std::vector<std::uint16_t>{2000, 2000, 2000, 2082}}) {
    const auto msg = Filled(0);
    PutCounts(msg.get(), counts);
    msg->Length = 77;
    msg->TrailerOffset = 99;
    EXPECT_EQ(LocateTrailer(msg.get(), kMessageMax, kMessageMax), -1)
        << testing::PrintToString(counts);
    EXPECT_EQ(msg->Length, 77U);
    EXPECT_EQ(msg->TrailerOffset, 99);
  }
}

TEST(Message, NulOrBlankFirstMeansTheDefaultNode) {
  EXPECT_TRUE(NamesDefault(""));
  EXPECT_TRUE(NamesDefault(" "));
  EXPECT_TRUE(NamesDefault(" SRV"));
  EXPECT_FALSE(NamesDefault("SRV"));
  EXPECT_FALSE(NamesDefault("@"));
  EXPECT_FALSE(NamesDefault("!"));
}

TEST(Message, ACopyHasAllThatTheMessageHasAndNotItsRoom) {
  const auto from = Filled(0x11);
  PutCounts(from.get(), {5, 0, 2, 700});
  ASSERT_EQ(LocateTrailer(from.get(), kArea, kArea), 0);
  from->ClientSocket = 12;
  const auto to = Filled(0xDD);
  CopyMessage(to.get(), from.get());
  const std::size_t size = from->Length + 4;
  EXPECT_EQ(std::memcmp(Wire(to.get()), Wire(from.get()), size), 0);
  EXPECT_TRUE(AllBytesAre(*to, size, kArea, 0xDD));
  EXPECT_EQ(to->Reserved[0], from->Reserved[0]);
  EXPECT_EQ(to->TrailerOffset, from->TrailerOffset);
  EXPECT_EQ(to->ClientSocket, 12);
}

TEST(Message, TheDeathOfAClientIsTold) {
  const auto msg = Filled(0xDD);
  MakeClientDeathMessage(msg.get(), 0x01020304);
  std::string expected(136, '\0');
  const auto put = [&expected](std::size_t at, auto value) {
    std::memcpy(expected.data() + at, &value, sizeof value);
  };
  put(0, std::uint32_t{132});
  put(4, std::int32_t{0x01020304});
  expected.replace(20, 4, "CKIL");
  put(52, std::uint16_t{28});
  put(54, std::int32_t{0x01020304});
  put(88, std::int32_t{0x01020304});
  put(100, std::uint16_t{0xFFFF});
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(Wire(msg.get())), 136), expected);
  EXPECT_EQ(msg->TrailerOffset, 80);
}

}  // namespace
