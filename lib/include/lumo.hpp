// The C++20 face of lumo.h, in this header alone. Everything said there holds here.
//
//   liblumo::Connection agent;
//   if (const auto answer = agent.Ask("SRV1", "SELECT 1"))
//     std::cout << answer.Rows();
//   else
//     std::cerr << answer.Words();  // an error, unsure, or refused by the node: answer.Status()
//
// Nothing throws but what the standard library throws for want of memory. Calls that can fail give
// back a Status, an Answer or a Result, which are true when the call was LUMO_OK.
#ifndef LUMO_HPP
#define LUMO_HPP

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "lumo.h"

namespace liblumo {

using Time = std::chrono::milliseconds;
inline constexpr Time kForever{-1};
inline constexpr Time kUsual{5000};

inline int Milliseconds(Time time) {
  constexpr Time::rep kMost = std::numeric_limits<int>::max();
  return time < Time::zero() ? -1 : static_cast<int>(time.count() < kMost ? time.count() : kMost);
}

struct Status {
  lumo_status Code = LUMO_OK;
  explicit operator bool() const { return Code == LUMO_OK; }
  const char* Name() const { return lumo_status_name(Code); }
  const char* Text() const { return lumo_status_text(Code); }
};

// What a management command came to: Value is what the agent answered.
struct Result : Status {
  std::int32_t Value = 0;
};
struct NameResult : Result {
  std::string Name;
};
struct NodeResult : Result {
  lumo_node Node{};
};

// How a request ended, or why it was not sent. True when the node (or the agent, a management
// command) has done it; a node's code that is not 0 is LUMO_REFUSED.
class Answer {
 public:
  Answer() = default;
  Answer(lumo_status status, lumo_answer* answer, lumo_ticket ticket = 0)
      : status_{status}, answer_(answer), ticket_(ticket) {}

  explicit operator bool() const { return static_cast<bool>(status_); }
  lumo_status Status() const { return status_.Code; }
  bool Ended() const { return answer_ != nullptr; }  // else it was not sent, or is still in flight
  bool Unsure() const { return status_.Code == LUMO_UNSURE; }
  bool Refused() const { return status_.Code == LUMO_REFUSED; }
  lumo_ticket Ticket() const { return ticket_; }  // after ReceiveAny: which request it was

  std::string_view Words() const {
    return answer_ ? lumo_answer_words(answer_.get()) : status_.Text();
  }
  std::int32_t Code() const { return lumo_answer_code(answer_.get()); }
  std::int32_t SystemError() const { return lumo_answer_sys_error(answer_.get()); }
  const char* CodeName() const { return lumo_answer_name(answer_.get()); }  // may be null
  lumo_advice Advice() const { return lumo_answer_advice(answer_.get()); }
  lumo_reason Reason() const { return lumo_answer_reason(answer_.get()); }
  bool FromAgent() const { return lumo_answer_from_agent(answer_.get()) != 0; }
  std::int32_t RowId() const { return lumo_answer_row_id(answer_.get()); }
  std::int32_t RowCount() const { return lumo_answer_row_count(answer_.get()); }
  // Lives as long as the answer; empty when there is no such string.
  std::string_view String(int index) const {
    std::size_t size = 0;
    const char* const text = lumo_answer_string(answer_.get(), index, &size);
    return text ? std::string_view(text, size) : std::string_view();
  }
  std::string_view Rows() const { return String(LUMO_ROWS); }
  const lumo_answer* Get() const { return answer_.get(); }  // for what is not here

 private:
  struct Free {
    void operator()(lumo_answer* answer) const { lumo_answer_free(answer); }
  };
  liblumo::Status status_;
  std::unique_ptr<lumo_answer, Free> answer_;
  lumo_ticket ticket_ = 0;
};

// A request; the C structure with texts of its own. Fields that are passed through: `Fields`.
class Request {
 public:
  Request() = default;
  explicit Request(std::string node, std::string text = {}) : node_(std::move(node)) {
    strings_[LUMO_TEXT] = std::move(text);
  }
  Request& Node(std::string node) { return Set(node_, std::move(node)); }
  Request& Command(std::string command) { return Set(command_, std::move(command)); }
  Request& String(std::size_t index, std::string text) {
    return Set(strings_.at(index), std::move(text));
  }
  lumo_request Fields = lumo_request_make();

  // Points into this object.
  lumo_request Raw() const {
    lumo_request raw = Fields;
    raw.node = node_.c_str();
    raw.command = command_.c_str();
    for (std::size_t i = 0; i < strings_.size(); ++i)
      raw.strings[i] = {strings_[i].data(), strings_[i].size()};
    return raw;
  }

 private:
  Request& Set(std::string& field, std::string text) {
    field = std::move(text);
    return *this;
  }
  std::string node_, command_;
  std::array<std::string, 4> strings_;
};

class Connection {
 public:
  // Connects; true when that went well. An empty path: the agent of the environment.
  explicit Connection(const std::string& path = {}, Time time = kUsual) {
    lumo_connection* connection = nullptr;
    opened_.Code = lumo_open(path.c_str(), Milliseconds(time), &connection);
    connection_.reset(connection);
  }
  explicit operator bool() const { return static_cast<bool>(opened_); }
  Status Opened() const { return opened_; }
  lumo_connection* Get() const { return connection_.get(); }
  std::int32_t AgentPid() const { return lumo_agent_pid(Get()); }
  int Descriptor() const { return lumo_descriptor(Get()); }
  std::size_t InFlight() const { return lumo_in_flight(Get()); }
  Status Reconnect(Time time = kUsual) { return {lumo_reconnect(Get(), Milliseconds(time))}; }

  Answer Ask(const Request& request, Time time = kUsual) {
    const lumo_request raw = request.Raw();
    lumo_answer* answer = nullptr;
    const lumo_status status = lumo_ask(Get(), &raw, Milliseconds(time), &answer);
    return {status, answer};
  }
  Answer Ask(const std::string& node, const std::string& text, Time time = kUsual) {
    return Ask(Request(node, text), time);
  }
  Status Send(const Request& request, lumo_ticket* ticket, Time time = kUsual) {
    const lumo_request raw = request.Raw();
    return {lumo_send(Get(), &raw, Milliseconds(time), ticket)};
  }
  Answer Receive(lumo_ticket ticket, Time time = kUsual) {
    lumo_answer* answer = nullptr;
    const lumo_status status = lumo_receive(Get(), ticket, Milliseconds(time), &answer);
    return {status, answer, ticket};
  }
  Answer ReceiveAny(Time time = kUsual) {
    lumo_answer* answer = nullptr;
    lumo_ticket ticket = 0;
    const lumo_status status = lumo_receive_any(Get(), Milliseconds(time), &ticket, &answer);
    return {status, answer, ticket};
  }
  Status Abandon(lumo_ticket ticket) { return {lumo_abandon(Get(), ticket)}; }

  // Management commands.
  Answer Manage(std::uint16_t command, std::int32_t argument = 0, std::string_view text = {},
                Time time = kUsual) {
    lumo_answer* answer = nullptr;
    const lumo_status status = lumo_manage(Get(), command, argument, {text.data(), text.size()},
                                           Milliseconds(time), nullptr, &answer);
    return {status, answer};
  }
  Result Probe(Time time = kUsual) { return Call(lumo_probe, Milliseconds(time)); }
  Result CountNodes(Time time = kUsual) { return Call(lumo_count_nodes, Milliseconds(time)); }
  NameResult DefaultName(Time time = kUsual) {
    return CallForName(LUMO_NODE_NAME_SIZE, [&](char* name, std::int32_t* value) {
      return lumo_default_name(Get(), Milliseconds(time), name, value);
    });
  }
  Result DefaultIndex(Time time = kUsual) { return Call(lumo_default_index, Milliseconds(time)); }
  NameResult NodeName(std::int32_t index, Time time = kUsual) {
    return CallForName(LUMO_NODE_NAME_SIZE, [&](char* name, std::int32_t* value) {
      return lumo_node_name(Get(), index, Milliseconds(time), name, value);
    });
  }
  Result SetDefault(std::int32_t index, Time time = kUsual) {
    return Call(lumo_set_default, index, Milliseconds(time));
  }
  NameResult NodetabPath(Time time = kUsual) {
    constexpr std::size_t kPathSize = 260;
    return CallForName(kPathSize, [&](char* path, std::int32_t* value) {
      return lumo_nodetab_path(Get(), Milliseconds(time), path, kPathSize, value);
    });
  }
  Result LockNodetab(std::int32_t owner, Time time = kUsual) {
    return Call(lumo_lock_nodetab, owner, Milliseconds(time));
  }
  Result UnlockNodetab(std::int32_t owner, Time time = kUsual) {
    return Call(lumo_unlock_nodetab, owner, Milliseconds(time));
  }
  Result NodetabStatus(std::int32_t owner, Time time = kUsual) {
    return Call(lumo_nodetab_status, owner, Milliseconds(time));
  }
  Result AddNode(const std::string& line, Time time = kUsual) {
    return Call(lumo_add_node, line.c_str(), Milliseconds(time));
  }
  NodeResult GetNode(const std::string& name, Time time = kUsual) {
    return CallForNode([&](lumo_node* node, std::int32_t* value) {
      return lumo_get_node(Get(), name.c_str(), Milliseconds(time), node, value);
    });
  }
  NodeResult GetNodeAt(std::int32_t index, Time time = kUsual) {
    return CallForNode([&](lumo_node* node, std::int32_t* value) {
      return lumo_get_node_at(Get(), index, Milliseconds(time), node, value);
    });
  }
  NodeResult GetDefaultNode(Time time = kUsual) {
    return CallForNode([&](lumo_node* node, std::int32_t* value) {
      return lumo_get_default_node(Get(), Milliseconds(time), node, value);
    });
  }
  Result DeleteNode(const std::string& name, Time time = kUsual) {
    return Call(lumo_delete_node, name.c_str(), Milliseconds(time));
  }
  Result DeleteNodeAt(std::int32_t index, Time time = kUsual) {
    return Call(lumo_delete_node_at, index, Milliseconds(time));
  }
  Result DeleteDefaultNode(Time time = kUsual) {
    return Call(lumo_delete_default_node, Milliseconds(time));
  }
  Result SetNode(const std::string& name, const std::string& line, Time time = kUsual) {
    return Call(lumo_set_node, name.c_str(), line.c_str(), Milliseconds(time));
  }
  Result SetNodeAt(std::int32_t index, const std::string& line, Time time = kUsual) {
    return Call(lumo_set_node_at, index, line.c_str(), Milliseconds(time));
  }
  Result SetDefaultNode(const std::string& line, Time time = kUsual) {
    return Call(lumo_set_default_node, line.c_str(), Milliseconds(time));
  }

 private:
  struct Close {
    void operator()(lumo_connection* connection) const { lumo_close(connection); }
  };

  template <class Function, class... Arguments>
  Result Call(Function function, Arguments... arguments) {
    Result result;
    result.Code = function(Get(), arguments..., &result.Value);
    return result;
  }
  template <class Function>
  NameResult CallForName(std::size_t size, Function function) {
    NameResult result;
    std::string text(size, '\0');
    result.Code = function(text.data(), &result.Value);
    result.Name = text.c_str();
    return result;
  }
  template <class Function>
  NodeResult CallForNode(Function function) {
    NodeResult result;
    result.Code = function(&result.Node, &result.Value);
    return result;
  }

  Status opened_;
  std::unique_ptr<lumo_connection, Close> connection_;
};

}  // namespace liblumo

#endif
