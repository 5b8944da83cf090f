// Where in a message the measuring programs look; offsets from the length word.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench {

constexpr std::size_t kLengthWord = 4;
constexpr std::size_t kTaskNameAt = 4;
constexpr std::size_t kCodErrAt = 8;
constexpr std::size_t kCommandAt = 20;
constexpr std::size_t kStringsAt = 52;
constexpr std::size_t kTrailerSize = 48;
constexpr std::size_t kSmallestMessage = 108;
constexpr std::size_t kLargestMessage = 8188;
constexpr std::size_t kLargestFrame = 8192;  // a node's, length word included
constexpr std::uint32_t kControlLength = 8;  // in the length word of a control packet

// In the trailer
constexpr std::size_t kReturnedAt = 4;  // 4 bytes of the relay's own that the node sends back
constexpr std::size_t kAstIndAt = 12;
constexpr std::size_t kSequenceAt = 14;    // 8 bytes that everybody passes on: ours
constexpr std::size_t kConnectionAt = 22;  // 4 bytes, as well

// A request with this command is never answered by the echoing node when it is told to hold them.
constexpr char kHoldCommand[] = "HOLD";

constexpr std::size_t kGreetingSize = 60;
constexpr std::uint32_t kGreetingWord = 56;

template <class T>
T Load(const char* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <class T>
void Store(char* to, T value) {
  std::memcpy(to, &value, sizeof value);
}

}  // namespace bench
