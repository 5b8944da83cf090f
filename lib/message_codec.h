// The client message as its clients see it: decoded, encoded, nothing shared with the agent's own
// record, so that a mistake in one of the two shows.
//
// Wire form, offsets from its first byte, host byte order:
//     0  u32       length      whole size on a client connection, size - 4 in a node's packet
//     4  i32       task name   process id of the client that asked
//     8  44 bytes  control block
//    52  ...       four counted strings: u16 count n, n bytes, a pad byte when n is odd
//   then 48 bytes  trailer
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumo {

constexpr std::size_t kMaxMessage = 8188;   // whole size of the largest client message
constexpr std::size_t kEmptyMessage = 108;  // whole size with four empty strings
constexpr std::size_t kMaxFrame = 8192;     // a node's largest packet with its length word

struct Message {
  std::int32_t TaskName = 0, CodErr = 0;
  std::uint16_t Prior = 0, NumChan = 0;
  std::array<std::uint8_t, 4> Uninterpreted{};
  std::string Command, Node;  // at most 4 and 8 bytes, padded with NULs; decoded raw
  std::int32_t RowId = 0, RowCount = 0;
  std::uint32_t PrzExe = 0;
  std::int32_t SysErr = 0;
  std::uint16_t LnBufRow = 0, DbcApiCode = 0;
  std::array<std::string, 4> Strings;
  std::array<std::uint8_t, 48> Trailer{};

  std::int32_t TrailerTaskName() const;
  void SetTrailerTaskName(std::int32_t taskName);
  std::uint16_t AstInd() const;
  void SetAstInd(std::uint16_t astInd);
};

enum class Lengths {
  Client,  // the length word counts itself
  Packet,  // it does not
};
enum class Layout {
  Ordinary,
  Management,  // the fourth string of a management answer has no pad byte
};

// The whole wire form, length word included. Throws std::length_error when a name or a string is
// too long for its field; the size of the whole is the caller's business.
std::string Encode(const Message& message, Lengths lengths);

// A whole frame, length word included and not looked at. Nothing when a string or the trailer
// would leave the frame, or when bytes are left over.
std::optional<Message> Decode(std::string_view frame, Layout layout = Layout::Ordinary);

// The size that Encode would give.
std::size_t EncodedSize(const Message& message);

// The node's name, cut at the first blank or NUL.
std::string NodeText(const Message& message);

}  // namespace lumo
