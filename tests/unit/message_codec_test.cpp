#include "lib/message_codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "lib/status_text.h"
#include "tests/support/management.h"

namespace {

using lumo::Decode;
using lumo::Encode;
using lumo::Layout;
using lumo::Lengths;
using lumo::Message;

template <class T>
T At(const std::string& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

Message Full() {
  Message message;
  message.TaskName = 0x01020304;
  message.CodErr = -7;
  message.Prior = 0x1112;
  message.NumChan = 0x1314;
  message.Uninterpreted = {9, 8, 7, 6};
  message.Command = "DBCA";
  message.Node = "SRV";
  message.RowId = 0x21222324;
  message.RowCount = 0x31323334;
  message.PrzExe = 0xF1F2F3F4;
  message.SysErr = 111;
  message.LnBufRow = 0x4142;
  message.DbcApiCode = 129;
  message.Strings = {"select 1", "odd", "", "x"};
  for (std::size_t i = 0; i < message.Trailer.size(); ++i)
    message.Trailer[i] = static_cast<std::uint8_t>(i + 1);
  return message;
}

TEST(MessageCodec, FourEmptyStringsMakeTheSmallestMessage) {
  const std::string frame = Encode(Message(), Lengths::Client);
  EXPECT_EQ(frame.size(), 108U);
  EXPECT_EQ(At<std::uint32_t>(frame, 0), 108U);
  EXPECT_EQ(frame.substr(4), std::string(104, '\0'));
}

TEST(MessageCodec, LengthOfAPacketDoesNotCountItself) {
  const std::string frame = Encode(Message(), Lengths::Packet);
  EXPECT_EQ(frame.size(), 108U);
  EXPECT_EQ(At<std::uint32_t>(frame, 0), 104U);
}

TEST(MessageCodec, EveryFieldLiesAtItsOffset) {
  const std::string frame = Encode(Full(), Lengths::Client);
  EXPECT_EQ(At<std::int32_t>(frame, 4), 0x01020304);
  EXPECT_EQ(At<std::int32_t>(frame, 8), -7);
  EXPECT_EQ(At<std::uint16_t>(frame, 12), 0x1112);
  EXPECT_EQ(At<std::uint16_t>(frame, 14), 0x1314);
  EXPECT_EQ(frame.substr(16, 4), "\x09\x08\x07\x06");
  EXPECT_EQ(frame.substr(20, 4), "DBCA");
  EXPECT_EQ(frame.substr(24, 8), std::string("SRV\0\0\0\0\0", 8));
  EXPECT_EQ(At<std::int32_t>(frame, 32), 0x21222324);
  EXPECT_EQ(At<std::int32_t>(frame, 36), 0x31323334);
  EXPECT_EQ(At<std::uint32_t>(frame, 40), 0xF1F2F3F4U);
  EXPECT_EQ(At<std::int32_t>(frame, 44), 111);
  EXPECT_EQ(At<std::uint16_t>(frame, 48), 0x4142);
  EXPECT_EQ(At<std::uint16_t>(frame, 50), 129);
}

TEST(MessageCodec, OddStringsArePaddedToEvenSize) {
  const std::string frame = Encode(Full(), Lengths::Client);
  const std::string strings("\x08\0select 1\x03\0odd\0\0\0\x01\0x\0", 22);
  EXPECT_EQ(frame.substr(52, strings.size()), strings);
  ASSERT_EQ(frame.size(), 52 + strings.size() + 48);
  EXPECT_EQ(lumo::EncodedSize(Full()), frame.size());
  EXPECT_EQ(frame[52 + strings.size()], 1);
  EXPECT_EQ(frame.back(), 48);
}

TEST(MessageCodec, TrailerFieldsLieAtTheirOffsets) {
  Message message;
  message.SetTrailerTaskName(0x0A0B0C0D);
  message.SetAstInd(0xFFFE);
  const std::string frame = Encode(message, Lengths::Client);
  EXPECT_EQ(At<std::int32_t>(frame, 60), 0x0A0B0C0D);
  EXPECT_EQ(At<std::uint16_t>(frame, 72), 0xFFFE);
  EXPECT_EQ(message.TrailerTaskName(), 0x0A0B0C0D);
  EXPECT_EQ(message.AstInd(), 0xFFFE);
}

TEST(MessageCodec, DecodingGivesBackWhatWasEncoded) {
  const Message message = Full();
  const auto decoded = Decode(Encode(message, Lengths::Packet));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(Encode(*decoded, Lengths::Client), Encode(message, Lengths::Client));
  EXPECT_EQ(decoded->TaskName, message.TaskName);
  EXPECT_EQ(decoded->Strings, message.Strings);
  EXPECT_EQ(decoded->Trailer, message.Trailer);
  EXPECT_EQ(decoded->Node, std::string("SRV\0\0\0\0\0", 8));
}

TEST(MessageCodec, EveryShorterFrameIsRefused) {
  const std::string frame = Encode(Full(), Lengths::Client);
  for (std::size_t size = 0; size < frame.size(); ++size)
    EXPECT_FALSE(Decode(std::string_view(frame).substr(0, size))) << size;
}

TEST(MessageCodec, BytesLeftOverAreRefused) {
  EXPECT_FALSE(Decode(Encode(Full(), Lengths::Client) + '\0'));
}

TEST(MessageCodec, StringThatLeavesTheFrameIsRefused) {
  std::string frame = Encode(Full(), Lengths::Client);
  frame[53] = '\xFF';
  EXPECT_FALSE(Decode(frame));
}

TEST(MessageCodec, FourthStringOfAManagementAnswerHasNoPadByte) {
  Message message;
  message.Strings[3] = "abc";
  std::string frame = Encode(message, Lengths::Client);
  frame.erase(60 + 3, 1);
  const auto decoded = Decode(frame, Layout::Management);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->Strings[3], "abc");
  EXPECT_FALSE(Decode(frame, Layout::Ordinary));
}

TEST(MessageCodec, OtherStringsOfAManagementAnswerKeepTheirPadByte) {
  Message message;
  message.Strings[0] = "abc";
  const auto decoded = Decode(Encode(message, Lengths::Client), Layout::Management);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->Strings[0], "abc");
}

TEST(MessageCodec, NodeTextEndsAtABlankOrANul) {
  Message message;
  message.Node = "AB CD";
  EXPECT_EQ(lumo::NodeText(message), "AB");
  message.Node = std::string("AB\0CD", 5);
  EXPECT_EQ(lumo::NodeText(message), "AB");
  message.Node = "ABCDEFGH";
  EXPECT_EQ(lumo::NodeText(message), "ABCDEFGH");
  message.Node.clear();
  EXPECT_EQ(lumo::NodeText(message), "");
}

TEST(MessageCodec, TextsTooLongForTheirFieldsAreRefused) {
  Message message;
  message.Node = "ABCDEFGHI";
  EXPECT_THROW(Encode(message, Lengths::Client), std::length_error);
  message.Node.clear();
  message.Command = "SELECT";
  EXPECT_THROW(Encode(message, Lengths::Client), std::length_error);
  message.Command.clear();
  message.Strings[2].assign(0x10000, 'x');
  EXPECT_THROW(Encode(message, Lengths::Client), std::length_error);
}

TEST(ManagementCodec, RequestNamesTheCommandAndItsArguments) {
  const Message request = lumo::ManagementRequest(121, 5, "text");
  EXPECT_EQ(request.Command, "DBCA");
  EXPECT_EQ(request.DbcApiCode, 121);
  EXPECT_EQ(request.RowId, 5);
  EXPECT_EQ(request.Strings[0], "text");
  EXPECT_EQ(request.TrailerTaskName(), request.TaskName);
  EXPECT_NE(lumo::ManagementRequest(121).AstInd(), request.AstInd());
}

TEST(ManagementCodec, NodeDescriptionIsReadFieldByField) {
  std::string item(232, '\0');
  const auto put = [&item](std::size_t at, auto value) {
    std::memcpy(item.data() + at, &value, sizeof value);
  };
  put(8, std::uint32_t{4});
  item.replace(12, 4, "NODE");
  item.replace(24, 9, "127.0.0.1");
  put(136, std::uint32_t{1060});
  put(140, std::uint16_t{5});
  put(142, std::uint16_t{30});
  put(144, std::uint16_t{10});
  const auto node = lumo::DecodeNodeDescription(item);
  ASSERT_TRUE(node);
  EXPECT_EQ(node->ProtocolCode, lumo::kProtocolTcpip);
  EXPECT_EQ(node->Name, "NODE");
  EXPECT_EQ(node->Address, "127.0.0.1");
  EXPECT_EQ(node->Port, 1060U);
  EXPECT_EQ(node->ReceiveTimeout, 5);
  EXPECT_EQ(node->SendTimeout, 30);
  EXPECT_EQ(node->ConnectTimeout, 10);
}

TEST(ManagementCodec, NodeDescriptionOfAnotherSizeIsRefused) {
  EXPECT_FALSE(lumo::DecodeNodeDescription(std::string(231, '\0')));
  EXPECT_FALSE(lumo::DecodeNodeDescription(""));
}

TEST(ManagementCodec, AnswerCarriesResultAndItem) {
  Message message;
  message.RowId = 17;
  message.Strings[3] = std::string("/p\0", 3);
  std::string frame = Encode(message, Lengths::Client);
  frame.erase(60 + 3, 1);
  const auto answer = lumo::DecodeManagementAnswer(frame);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->CodErr, 0);
  EXPECT_EQ(answer->Result, 17);
  EXPECT_EQ(lumo::ItemText(answer->Item), "/p");
}

TEST(ManagementCodec, ItemTextLosesItsPadding) {
  EXPECT_EQ(lumo::ItemText("SRV     "), "SRV");
  EXPECT_EQ(lumo::ItemText("        "), "");
}

TEST(StatusText, EveryCodeOfTheAgentHasWordsAndNoOther) {
  for (const int code : {1001, 4001, 4002, 4005, 4006, 4007, 4008, 4009, 4050, 4052, 4053, 4058,
                         4065, 4066, 4156, 4200, 4201})
    EXPECT_NE(lumo::StatusText(code), nullptr) << code;
  for (const int code : {0, 1, 19, 1002, 4000, 4003, 4202})
    EXPECT_EQ(lumo::StatusText(code), nullptr) << code;
}

}  // namespace
