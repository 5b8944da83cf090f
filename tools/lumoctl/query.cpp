// query: SQL through the agent.
#include <cstdio>
#include <memory>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {
namespace {

constexpr std::size_t kNodeNameMax = 8;

struct AnswerFreer {
  void operator()(lumo_answer* answer) const { lumo_answer_free(answer); }
};
using Answer = std::unique_ptr<lumo_answer, AnswerFreer>;

std::string RowsOf(const lumo_answer* answer) {
  std::size_t size = 0;
  const char* const text = lumo_answer_string(answer, LUMO_ROWS, &size);
  return text ? std::string(text, size) : "";
}

// Nothing was sent, or nothing has come that tells.
[[noreturn]] void FailUnanswered(lumo_status status, const lumo_answer* answer) {
  if (status == LUMO_UNSURE && lumo_answer_reason(answer) == LUMO_REASON_DEADLINE)
    throw Failure(kUnsure, "no answer came in time; the node may have carried it out");
  if (status == LUMO_UNSURE) throw Failure(kUnsure, lumo_answer_words(answer));
  if (status == LUMO_TIMEOUT) throw Failure(kTimeOver, "the agent does not take the request");
  if (status == LUMO_TOO_LONG) throw Failure(kUsage, "the SQL is too long for one message");
  throw Failure(status == LUMO_NO_AGENT ? kNoAgent : kFailed, lumo_status_text(status));
}

// Who refused, with which code, in words.
std::string Refusal(lumo_status status, const lumo_answer* answer) {
  if (status == LUMO_ERROR)
    return std::string(lumo_answer_words(answer)) + "; " +
           lumo_advice_text(lumo_answer_advice(answer));
  const std::int32_t code = lumo_answer_code(answer);
  return "the node refused: " + Printable(RowsOf(answer)) + " (code " + std::to_string(code) + ")";
}

Json AnswerJson(const std::string& sql, lumo_status status, const lumo_answer* answer) {
  return Json{{"sql", sql},
              {"code", lumo_answer_code(answer)},
              {"system_error", lumo_answer_sys_error(answer)},
              {"from", status == LUMO_ERROR ? "agent" : "node"},
              {"row_count", lumo_answer_row_count(answer)},
              {"rows", RowsOf(answer)}};
}

}  // namespace

int RunQuery(const Options& options) {
  if (options.Node.size() > kNodeNameMax)
    throw Failure(kUsage, "the node's name is too long: the most is 8 characters");
  Agent agent(options);
  Json answers = Json::array();
  std::string text, refusal;
  for (const std::string& sql : options.Arguments) {
    lumo_request request = lumo_request_make();
    request.node = options.Node.c_str();
    request.command = "SQL";
    request.strings[LUMO_TEXT] = {sql.data(), sql.size()};
    lumo_answer* raw = nullptr;
    const lumo_status status = lumo_ask(agent.Connection(), &request, options.TimeoutMs(30), &raw);
    const Answer answer(raw);
    if (status != LUMO_OK && status != LUMO_ERROR && status != LUMO_REFUSED) {
      if (!options.Json) Show(options, {}, text);
      FailUnanswered(status, raw);
    }
    answers.push_back(AnswerJson(sql, status, raw));
    if (status != LUMO_OK) {
      refusal = Refusal(status, raw);
      break;
    }
    const std::string rows = RowsOf(raw);
    if (!rows.empty()) text += rows + '\n';
  }
  Json value{{"answers", answers}};
  if (!refusal.empty()) value["error"] = {{"status", static_cast<int>(kNo)}, {"message", refusal}};
  Show(options, value, text);
  if (refusal.empty()) return kDone;
  std::fprintf(stderr, "lumoctl: %s\n", refusal.c_str());
  return kNo;
}

}  // namespace lumo::ctl
