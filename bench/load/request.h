// The request that is sent again and again, with a tag that its answer must bring back.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "bench/load/options.h"

namespace bench {

struct Tag {
  std::uint16_t AstInd;      // one of a kind in this process while its request is under way
  std::uint64_t Sequence;    // one of a kind
  std::uint32_t Connection;  // that asked
};

class Request {
 public:
  Request(const Options& options, const std::string& command);
  // The frame with this tag; good until the next call.
  std::string_view WithTag(const Tag& tag);
  std::size_t Size() const { return frame_.size(); }
  // The whole answer is the request, but for what is written on the way.
  bool IsAnsweredBy(std::string_view frame) const;

 private:
  std::string frame_;
};

// The size of the frame that begins with these 4 bytes.
std::size_t FrameSize(const Options& options, const char* lengthWord);

Tag TagOf(std::string_view frame);

}  // namespace bench
