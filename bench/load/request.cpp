#include "bench/load/request.h"

#include <unistd.h>

#include <algorithm>

#include "bench/frame.h"
#include "lib/message_codec.h"

namespace bench {

Request::Request(const Options& options, const std::string& command) {
  lumo::Message message;
  message.TaskName = getpid();
  message.SetTrailerTaskName(getpid());
  message.Command = command;
  message.Node = options.Node;
  std::string text(options.Size - kSmallestMessage, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
  message.Strings[1] = text;
  frame_ = Encode(message, Greets(options) ? lumo::Lengths::Client : lumo::Lengths::Packet);
}

std::string_view Request::WithTag(const Tag& tag) {
  char* const trailer = frame_.data() + frame_.size() - kTrailerSize;
  Store(trailer + kAstIndAt, tag.AstInd);
  Store(trailer + kSequenceAt, tag.Sequence);
  Store(trailer + kConnectionAt, tag.Connection);
  return frame_;
}

bool Request::IsAnsweredBy(std::string_view frame) const {
  const std::size_t fixed = frame_.size() - kTrailerSize;
  return frame.size() == frame_.size() && Load<std::int32_t>(frame.data() + kCodErrAt) == 0 &&
         frame.substr(0, fixed) == std::string_view(frame_).substr(0, fixed);
}

std::size_t FrameSize(const Options& options, const char* lengthWord) {
  return Load<std::uint32_t>(lengthWord) + (Greets(options) ? 0 : kLengthWord);
}

Tag TagOf(std::string_view frame) {
  const char* const trailer = frame.data() + frame.size() - kTrailerSize;
  return {.AstInd = Load<std::uint16_t>(trailer + kAstIndAt),
          .Sequence = Load<std::uint64_t>(trailer + kSequenceAt),
          .Connection = Load<std::uint32_t>(trailer + kConnectionAt)};
}

}  // namespace bench
