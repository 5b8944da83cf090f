#include "tools/lumoctl/trace_log.h"

#include <strings.h>

#include <charconv>

namespace lumo::ctl {
namespace {

constexpr std::string_view kHead = "lumo_tcp:[";

bool Begins(std::string_view text, std::string_view with) {
  return text.substr(0, with.size()) == with;
}

template <class Number>
Number NumberAt(std::string_view text) {
  Number number = 0;
  const std::size_t first = text.find_first_not_of(' ');
  if (first != std::string_view::npos)
    std::from_chars(text.data() + first, text.data() + text.size(), number);
  return number;
}

std::string_view Between(std::string_view text, char from, char to) {
  const std::size_t begin = text.find(from);
  if (begin == std::string_view::npos) return {};
  const std::size_t end = text.find(to, begin + 1);
  return text.substr(begin + 1, end == std::string_view::npos ? end : end - begin - 1);
}

std::string_view Word(std::string_view text) { return text.substr(0, text.find_first_of(" ,")); }

// Whether the request may have gone over the link, as far as the log tells.
bool Uses(const TracedRequest& request, const std::string& link) {
  const std::string& name = request.Link.empty() ? request.Node : request.Link;
  return link.empty() || name.empty() || strcasecmp(name.c_str(), link.c_str()) == 0;
}

}  // namespace

std::string TracedRequest::Path() const {
  if (Management()) return "management";
  std::string path = Saved ? "waited" : "";
  if (Sent) path += path.empty() ? "sent" : ", sent";
  if (ByAgent) path += (path.empty() ? "agent " : ", agent ") + std::to_string(Code);
  if (!Answered) path += path.empty() ? "no answer" : ", no answer";
  return path;
}

// "lumo_tcp:[15]    clntxch:  65 1795349295|text"; a journal may have put something before it.
void TraceReader::Line(std::string_view line, double now) {
  ++lines_;
  const std::size_t head = line.find(kHead);
  if (head == std::string_view::npos) return;
  const std::size_t bar = line.find('|', head);
  if (bar == std::string_view::npos) return;
  const std::size_t blank = line.rfind(' ', bar);
  clock_ = now != 0 ? now : NumberAt<double>(line.substr(blank, bar - blank));
  Text(line.substr(bar + 1));
}

void TraceReader::Text(std::string_view text) {
  if (Begins(text, "    ")) return Field(text.substr(4));
  if (Begins(text, "'")) {
    const std::string_view operation = Between(text, '\'', '\'');
    const std::string_view rest = text.substr(operation.size() + 2);
    if (Begins(rest, " Call from ")) return Begin(operation, rest);
    if (operation == "HandleMessageFromClientQueue") inHand_ = false;
    if (operation == "PutMsgToClient" || operation == "DisconnectLink") built_ = false;
    return;
  }
  if (Begins(text, " Receive message from client")) {
    message_ = Message::Request;
  } else if (Begins(text, " Need put the message to client")) {
    message_ = Message::Answer;
  } else if (Begins(text, "MsgInfo->TaskName")) {
    const std::size_t task = text.rfind("TaskName = "), tag = text.rfind("AstInd = ");
    tagPid_ = NumberAt<std::int32_t>(text.substr(task + 11));
    tag_ = NumberAt<std::int32_t>(text.substr(tag + 9));
  } else if (Begins(text, "The message were not send by the agent")) {
    ++unasked_;
  } else if (Begins(text, "Link ") && inHand_ && current_ != open_.end()) {
    current_->Link = Word(text.substr(5));
  } else if (Begins(text, "Need write ")) {
    link_ = Between(text, '"', '"');
    if (!inHand_) SentNow();
  }
}

void TraceReader::Begin(std::string_view operation, std::string_view detail) {
  if (operation == "HandleMessageFromClientQueue") {
    inHand_ = true;
    current_ = open_.end();
    tag_ = -1;
    fieldCode_ = NumberAt<std::int32_t>(detail.substr(detail.find("= ") + 2));
  } else if (operation == "MakeAnswerFromMsgInfo") {
    built_ = true;
  } else if (operation == "DisconnectLink") {
    const std::size_t at = detail.find("Link = ");
    link_ = at == std::string_view::npos ? "" : Word(detail.substr(at + 7));
  } else if (operation == "SaveUnsendMsg") {
    if (inHand_ && current_ != open_.end()) current_->Saved = true;
  } else if (operation.size() > 13 && operation.substr(operation.size() - 13) == "SendToNetwork") {
    if (!inHand_) link_.clear();  // one that is told follows
    if (inHand_ || operation != "TcpSendToNetwork") SentNow();
  } else if (operation == "ReturnAnswerFromNetworkToClient") {
    tag_ = -1;
    built_ = false;
  }
}

// The request in hand, or the oldest that waits for the link, leaves.
void TraceReader::SentNow() {
  auto request = inHand_ ? current_ : open_.end();
  if (!inHand_) {
    for (auto at = open_.begin(); at != open_.end() && request == open_.end(); ++at)
      if (at->Saved && !at->Sent && Uses(*at, link_)) request = at;
  }
  if (request == open_.end() || request->Sent) return;
  request->Sent = true;
  request->SentAt = clock_;
}

void TraceReader::Field(std::string_view text) {
  if (message_ == Message::None) return;
  const std::size_t equal = text.find('=');
  if (equal == std::string_view::npos) return;
  const std::string_view name = text.substr(0, equal), value = text.substr(equal + 1);
  if (message_ == Message::Request) {
    if (name == "TaskName") {
      open_.emplace_back();
      current_ = std::prev(open_.end());
      current_->Line = lines_;
      current_->Pid = NumberAt<std::int32_t>(value);
      current_->Socket = fieldCode_;
      current_->Read = clock_;
    } else if (current_ != open_.end() && name == "CBL.Command") {
      current_->Command = value;
    } else if (current_ != open_.end() && name == "CBL.Node") {
      current_->Node = Word(value);
    }
  } else if (name == "TaskName") {
    fieldPid_ = NumberAt<std::int32_t>(value);
  } else if (name == "CBL.CodErr") {
    Put(NumberAt<std::int32_t>(value));
  }
  if (name == "CBL.PrzExe") message_ = Message::None;
}

// The oldest request of this process that an answer may belong to: one that was sent, or that
// still waits; of the link that is taken down, when the agent builds the answer.
TraceReader::Requests::iterator TraceReader::Match(bool sent) const {
  for (auto at = open_.begin(); at != open_.end(); ++at) {
    if (at->Pid != fieldPid_ || at->Sent != sent || at->Management()) continue;
    if (built_ && !Uses(*at, link_)) continue;
    return at;
  }
  return open_.end();
}

void TraceReader::Put(std::int32_t code) {
  if (inHand_ && current_ != open_.end() && current_->Pid == fieldPid_ && !current_->Sent &&
      (built_ || current_->Management())) {
    Answer(current_, code, built_);
    current_ = open_.end();
    return;
  }
  auto request = Match(true);
  if (request == open_.end() && built_) request = Match(false);
  if (request == open_.end()) return;
  if (tag_ >= 0 && tagPid_ == fieldPid_ && !built_) request->Tag = tag_;
  if (request == current_) current_ = open_.end();
  Answer(request, code, built_);
}

void TraceReader::Answer(Requests::iterator request, std::int32_t code, bool byAgent) {
  request->Answered = true;
  request->ByAgent = byAgent;
  request->Code = code;
  request->AnsweredAt = clock_;
  done_(*request);
  open_.erase(request);
  tag_ = -1;
}

void TraceReader::Finish() {
  for (const TracedRequest& request : open_) done_(request);
  open_.clear();
  current_ = open_.end();
}

}  // namespace lumo::ctl
