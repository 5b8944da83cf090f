// Requests, put together from the lines of an agent's log at level 15.
//
// The agent has one thread: what stands between the beginning and the end of an operation belongs
// to it. A request's tag is first told with its answer, so the answers of a node to one process are
// taken to come in the order of the requests.
#pragma once
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>

namespace lumo::ctl {

struct TracedRequest {
  std::uint64_t Line = 0;  // of the log, where it was read
  std::int32_t Pid = 0;    // that it names
  std::int32_t Tag = -1;   // -1: not told
  std::int32_t Socket = -1;
  std::string Node, Link, Command;  // asked for; used; as far as they are told
  bool Saved = false, Sent = false, ByAgent = false, Answered = false;
  std::int32_t Code = 0;
  double Read = 0, SentAt = 0, AnsweredAt = 0;  // seconds; 0: it has not come to that

  bool Management() const { return Command == "DBCA"; }
  // "sent", "waited, sent", "agent 4006", "management", "no answer"
  std::string Path() const;
  double Seconds() const { return Answered ? AnsweredAt - Read : 0; }
};

class TraceReader {
 public:
  // `done` gets every request when it is answered, and the others from Finish.
  explicit TraceReader(std::function<void(const TracedRequest&)> done) : done_(std::move(done)) {}

  // One line, without its end. `now`: the time of day when it came, or 0: take the log's clock,
  // which has whole seconds.
  void Line(std::string_view line, double now);
  void Finish();
  std::uint64_t Lines() const { return lines_; }
  std::uint64_t Unasked() const { return unasked_; }

 private:
  using Requests = std::list<TracedRequest>;

  void Text(std::string_view text);
  void Field(std::string_view text);
  void Begin(std::string_view operation, std::string_view detail);
  void SentNow();
  void Put(std::int32_t code);
  Requests::iterator Match(bool sent) const;
  void Answer(Requests::iterator request, std::int32_t code, bool byAgent);

  std::function<void(const TracedRequest&)> done_;
  std::uint64_t lines_ = 0, unasked_ = 0;
  double clock_ = 0;
  mutable Requests open_;  // in the order in which they were read

  enum class Message { None, Request, Answer } message_ = Message::None;  // whose fields come
  Requests::iterator current_ = open_.end();                              // the request in hand
  bool inHand_ = false, built_ = false;  // an answer is being built by the agent
  std::int32_t fieldPid_ = 0, fieldCode_ = 0, tag_ = -1, tagPid_ = 0;
  std::string link_;  // that is being served or taken down
};

}  // namespace lumo::ctl
