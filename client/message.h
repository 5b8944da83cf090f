// The client message: one layout for requests, answers and the answers that the agent builds.
//
// Wire form, offsets from its first byte, host byte order:
//     0  u32       Length      on a client connection the whole size; in memory the size minus 4
//     4  i32       TaskName    process id of the client that asked
//     8  44 bytes  CBL         control block
//    52  ...       four counted strings: u16 count n, n bytes, a pad byte when n is odd
//   then 48 bytes  trailer
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/wire.h"

constexpr std::size_t kMessageArea = 8192;  // Length to the last byte that fits the record
constexpr std::size_t kMessageMax = 8188;   // the largest message of a client; the largest
                                            // packet length of a node
constexpr std::size_t kTrailerSize = 48;
constexpr std::size_t kStringsAt = 52;       // in the wire form
constexpr std::size_t kCblAt = 8;            // in the wire form
constexpr std::uint32_t kEmptyLength = 104;  // in-memory Length with four empty strings
constexpr std::uint16_t kEmptyTrailerOffset = 52;

struct Cbl {
  std::int32_t CodErr;  // 0: success
  std::uint16_t Prior;
  std::uint16_t NumChan;
  std::uint8_t Uninterpreted[4];
  char Command[4];  // "DBCA": a management request
  char Node[8];     // padded with blanks or NULs; a NUL or blank first: the default link
  std::int32_t RowId;
  std::int32_t RowCount;
  std::uint32_t PrzExe;
  std::int32_t SysErr;  // the system's error number that goes with CodErr
  std::uint16_t LnBufRow;
  std::uint16_t DbcApiCode;  // management command
};

struct ClientMessage {
  std::uint32_t Reserved[2];  // the agent's own; never sent
  std::uint32_t Length;       // the wire form begins here
  std::int32_t TaskName;
  struct Cbl CBL;
  std::uint8_t Strings[kMessageArea - kStringsAt];  // four counted strings, then the trailer
  std::uint16_t TrailerOffset;                      // of the trailer, from the start of CBL
  std::int32_t ClientSocket;  // connection of the request; -1 when it has been closed
};
static_assert(sizeof(Cbl) == 44 && offsetof(Cbl, Node) == 16 && offsetof(Cbl, DbcApiCode) == 42);
static_assert(offsetof(ClientMessage, Length) == 8 && offsetof(ClientMessage, Strings) == 60);
static_assert(offsetof(ClientMessage, TrailerOffset) == 8 + kMessageArea);

// The trailer, offsets from its start.
constexpr WireField<std::int32_t> kTrailerTaskName{0};
constexpr WireField<std::uint16_t> kTrailerFirstHalfWord{0};
constexpr WireField<std::uint32_t> kTrailerLinkSocket{4};
constexpr WireField<std::uint16_t> kTrailerAstInd{12};
constexpr WireField<std::uint8_t> kTrailerMark{46};

// The wire form, reached from the whole record: a pointer to Length is not one to its neighbours.
inline unsigned char* Wire(ClientMessage* msg) {
  return reinterpret_cast<unsigned char*>(msg) + offsetof(ClientMessage, Length);
}
inline const unsigned char* Wire(const ClientMessage* msg) {
  return reinterpret_cast<const unsigned char*>(msg) + offsetof(ClientMessage, Length);
}
inline unsigned char* Trailer(ClientMessage* msg) {
  return Wire(msg) + kCblAt + msg->TrailerOffset;
}
inline const unsigned char* Trailer(const ClientMessage* msg) {
  return Wire(msg) + kCblAt + msg->TrailerOffset;
}

// Bytes that a counted string with this count occupies: the count word, the text, the padding.
inline std::size_t CountedSize(std::uint16_t count) { return 2 + ((count + 1U) & ~1U); }

// Finds the trailer of a message of which the first `received` bytes of the wire form have come;
// bytes that did not come are made zero as far as the message reaches. Sets TrailerOffset and
// Length and returns 0; returns -1, with both untouched, when the message would end beyond the
// first `room` bytes of the area.
int LocateTrailer(ClientMessage* msg, std::size_t received, std::size_t room);

// Copies what a located message has, not the room that it leaves.
void CopyMessage(ClientMessage* to, const ClientMessage* from);

// The default link is meant: the first character is NUL or a blank.
inline bool NamesDefault(const char* node) { return (node[0] & ~0x20) == 0; }

// A management command rather than a request for a node.
inline bool IsManagement(const ClientMessage* msg) {
  return std::memcmp(msg->CBL.Command, "DBCA", sizeof msg->CBL.Command) == 0;
}

// The parts of a text message to a database kernel that a client process has died ("CKIL"):
// Length 132, the process id as task name and in the first counted string.
void MakeClientDeathMessage(ClientMessage* msg, std::int32_t pid);
