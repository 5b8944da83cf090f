// The end of a request.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "lib/include/lumo.h"
#include "lib/message_codec.h"

struct lumo_answer {
  lumo_status Status = LUMO_UNSURE;
  lumo_reason Reason = LUMO_REASON_NONE;
  bool FromAgent = false;
  lumo::Message Message;
  std::string Node;   // cut at its padding
  std::string Words;  // empty: those of the reason
};

namespace lumo::detail {

using AnswerPointer = std::unique_ptr<lumo_answer>;

// For a request with this tag that has no answer yet.
AnswerPointer NewAnswer(std::uint16_t tag);

// What a message that has come means.
enum class Kind { Request, Management };
void FillAnswer(Message message, Kind kind, lumo_answer* answer);

}  // namespace lumo::detail
