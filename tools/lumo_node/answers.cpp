#include "tools/lumo_node/answers.h"

#include <cstring>

namespace lumo::node {
namespace {

constexpr std::size_t kFirstStringAt = 52;

template <class T>
void PutAt(std::string* bytes, std::size_t at, T value) {
  std::memcpy(bytes->data() + at, &value, sizeof value);
}

}  // namespace

std::string RequestSql(const Message& request) {
  const std::string& text = request.Strings[0];
  return text.substr(0, text.find('\0'));
}

bool IsLinkTest(const Message& request) { return request.Command == "TS T"; }

bool IsHeld(const Message& request) { return request.Command == "HOLD"; }

bool IsClientDeath(const Message& request) { return request.Command == "CKIL"; }

Message MakeAnswer(const Message& request, const QueryResult& result) {
  Message answer = request;
  answer.Strings = {};
  answer.Strings[3] = result.Text.substr(0, kMaxText);
  answer.CodErr = result.Code;
  answer.SysErr = 0;
  answer.RowCount = result.Rows;
  answer.LnBufRow = static_cast<std::uint16_t>(answer.Strings[3].size());
  return answer;
}

std::string Spoil(const std::string& frame, Malformed kind) {
  std::string bad = frame;
  switch (kind) {
    case Malformed::None:
      break;
    case Malformed::Length:
      PutAt<std::uint32_t>(&bad, 0, kMaxFrame + 1);
      break;
    case Malformed::Strings:
      PutAt<std::uint16_t>(&bad, kFirstStringAt, 0xFFFF);
      break;
    case Malformed::Zero:
      PutAt<std::uint32_t>(&bad, 0, 0);
      break;
    case Malformed::Truncated:
      bad.resize(bad.size() / 2);
      break;
  }
  return bad;
}

}  // namespace lumo::node
