#include "lib/answer.h"

#include <algorithm>
#include <system_error>

namespace lumo::detail {
namespace {

constexpr std::size_t kCommandSize = 4;

std::string ErrorWords(std::int32_t code, std::int32_t sysError) {
  const char* const text = lumo_code_text(code);
  std::string words = text ? text : "the agent answered with an unknown code";
  words += " (code " + std::to_string(code);
  if (sysError != 0) words += ": " + std::generic_category().message(sysError);
  return words + ")";
}

// A node's words on one line: they may be shown on a terminal.
std::string OneLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\0'));
  const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7F; };
  std::ranges::replace_if(line, isControl, ' ');
  return line;
}

std::string RefusalWords(const Message& message) {
  const std::string words = OneLine(message.Strings[LUMO_ROWS]);
  return "the node refused" + (words.empty() ? "" : ": " + words) + " (code " +
         std::to_string(message.CodErr) + ")";
}

std::string Words(const lumo_answer& answer) {
  switch (answer.Status) {
    case LUMO_ERROR:
      return ErrorWords(answer.Message.CodErr, answer.Message.SysErr);
    case LUMO_REFUSED:
      return RefusalWords(answer.Message);
    case LUMO_UNSURE:
      return {};  // those of the reason
    default:
      return answer.FromAgent ? "the agent answered" : "the node answered";
  }
}

}  // namespace

AnswerPointer NewAnswer(std::uint16_t tag) {
  AnswerPointer answer = std::make_unique<lumo_answer>();
  answer->Message.SetAstInd(tag);
  answer->Message.Command.assign(kCommandSize, '\0');
  return answer;
}

void FillAnswer(Message message, Kind kind, lumo_answer* answer) {
  // A node returns the trailer of the request; the agent leaves the process id in it zero.
  answer->FromAgent = kind == Kind::Management || message.TrailerTaskName() == 0;
  answer->Status = LUMO_OK;
  if (message.CodErr != 0) {
    answer->Status = answer->FromAgent ? LUMO_ERROR : LUMO_REFUSED;
  } else if (answer->FromAgent && kind == Kind::Request) {
    answer->Status = LUMO_UNSURE;
    answer->Reason = LUMO_REASON_AGENT_STOPPED;
  }
  answer->Message = std::move(message);
  answer->Node = NodeText(answer->Message);
  answer->Words = Words(*answer);
}

}  // namespace lumo::detail

void lumo_answer_free(lumo_answer* answer) { delete answer; }

lumo_status lumo_answer_status(const lumo_answer* answer) {
  return answer ? answer->Status : LUMO_OK;
}

lumo_reason lumo_answer_reason(const lumo_answer* answer) {
  return answer ? answer->Reason : LUMO_REASON_NONE;
}

int lumo_answer_from_agent(const lumo_answer* answer) { return answer && answer->FromAgent; }

int32_t lumo_answer_code(const lumo_answer* answer) { return answer ? answer->Message.CodErr : 0; }

int32_t lumo_answer_sys_error(const lumo_answer* answer) {
  return answer ? answer->Message.SysErr : 0;
}

const char* lumo_answer_name(const lumo_answer* answer) {
  if (!answer || answer->Status != LUMO_ERROR) return nullptr;
  return lumo_code_name(answer->Message.CodErr);
}

const char* lumo_answer_words(const lumo_answer* answer) {
  if (!answer) return nullptr;
  return answer->Words.empty() ? lumo_reason_text(answer->Reason) : answer->Words.c_str();
}

lumo_advice lumo_answer_advice(const lumo_answer* answer) {
  if (answer && answer->Status == LUMO_UNSURE) return LUMO_ADVICE_UNSURE;
  if (!answer || answer->Status != LUMO_ERROR) return LUMO_ADVICE_NONE;
  return lumo_code_advice(answer->Message.CodErr, answer->Message.SysErr);
}

const char* lumo_answer_string(const lumo_answer* answer, int index, size_t* size) {
  const bool known = answer && index >= 0 && index < 4;
  const std::string* const text =
      known ? &answer->Message.Strings[static_cast<std::size_t>(index)] : nullptr;
  if (size) *size = text ? text->size() : 0;
  return text ? text->c_str() : nullptr;
}

const char* lumo_answer_command(const lumo_answer* answer) {
  return answer ? answer->Message.Command.c_str() : nullptr;
}

const char* lumo_answer_node(const lumo_answer* answer) {
  return answer ? answer->Node.c_str() : nullptr;
}

int32_t lumo_answer_row_id(const lumo_answer* answer) { return answer ? answer->Message.RowId : 0; }

int32_t lumo_answer_row_count(const lumo_answer* answer) {
  return answer ? answer->Message.RowCount : 0;
}

uint32_t lumo_answer_prz_exe(const lumo_answer* answer) {
  return answer ? answer->Message.PrzExe : 0;
}

uint16_t lumo_answer_prior(const lumo_answer* answer) { return answer ? answer->Message.Prior : 0; }

uint16_t lumo_answer_num_chan(const lumo_answer* answer) {
  return answer ? answer->Message.NumChan : 0;
}

uint16_t lumo_answer_ln_buf_row(const lumo_answer* answer) {
  return answer ? answer->Message.LnBufRow : 0;
}

uint16_t lumo_answer_dbc_api_code(const lumo_answer* answer) {
  return answer ? answer->Message.DbcApiCode : 0;
}

const uint8_t* lumo_answer_spare(const lumo_answer* answer) {
  return answer ? answer->Message.Uninterpreted.data() : nullptr;
}

const uint8_t* lumo_answer_trailer(const lumo_answer* answer) {
  return answer ? answer->Message.Trailer.data() : nullptr;
}

uint16_t lumo_answer_tag(const lumo_answer* answer) {
  return answer ? answer->Message.AstInd() : 0;
}
