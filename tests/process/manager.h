// A client that manages the agent. Every answer is compared to the byte before its result is
// looked at.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>

#include "tests/support/agent_test.h"
#include "tests/support/management.h"
#include "tests/support/text.h"

namespace test {

using enum lumo::ManagementResult;

inline constexpr char kThreeNodes[] = "A REZ\nB REZ\nC REZ\n";

inline std::string DefaultName(Agent& agent) {
  const lumo::Answer answer = lumo::AskManagement(agent.Control(), 103);
  return answer ? lumo::ItemText(answer->Item) : "no answer";
}

struct Outcome {
  Outcome(std::int32_t result, std::string item = {}) : Result(result), Item(std::move(item)) {}
  std::int32_t Result;
  std::string Item;
  bool operator==(const Outcome&) const = default;
};

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << outcome.Result << " " << testing::PrintToString(outcome.Item);
}

// The answer as it goes over the connection: the item stands in the fourth string, and the trailer
// follows it without a pad byte.
inline std::string ManagementFrame(const lumo::Message& request, const Outcome& outcome) {
  constexpr std::size_t kLastCountAt = 58, kItemAt = 60;
  lumo::Message answer;
  answer.TaskName = request.TaskName;
  answer.RowId = outcome.Result;
  answer.LnBufRow = static_cast<std::uint16_t>(outcome.Item.size());
  answer.SetAstInd(request.AstInd());
  std::string frame = lumo::Encode(answer, lumo::Lengths::Client);
  Overwrite(&frame, kLastCountAt, answer.LnBufRow);
  frame.insert(kItemAt, outcome.Item);
  Overwrite(&frame, 0, static_cast<std::uint32_t>(frame.size()));
  return frame;
}

// What the log tells at level 1 when the default goes on to these nodes, one after the other.
inline std::string TriedAsDefault(std::initializer_list<const char*> nodes) {
  std::string told;
  for (const std::string node : nodes)
    told += "lumo_tcp:Set link  " + node + " as default\nlumo_tcp:Try connect link as default " +
            node + "\n";
  return told;
}

// The same when none of them is there, and it comes back to where it was.
inline std::string FailedCircle(std::initializer_list<const char*> nodes, const std::string& back) {
  return TriedAsDefault(nodes) + "lumo_tcp:Set link  " + back +
         " as default\nlumo_tcp:Full connect circle failed or timeout expired\n";
}

class Manager {
 public:
  explicit Manager(const Agent& agent) : client_(agent) {}

  lumo::Message Send(int command, std::int32_t rowId = 0, const std::string& argument = {}) {
    const lumo::Message request =
        lumo::ManagementRequest(static_cast<std::uint16_t>(command), rowId, argument);
    return SendMessage(request);
  }
  lumo::Message SendMessage(const lumo::Message& request) {
    if (!client_.SendMessage(request)) ADD_FAILURE() << "the command cannot be sent";
    return request;
  }
  Outcome Receive(const lumo::Message& request, const Place& place = Place::Here()) {
    const testing::ScopedTrace trace(place.File, place.Line, "");
    const std::optional<std::string> frame = client_.ReceiveFrame();
    const auto answer = frame ? lumo::Decode(*frame, lumo::Layout::Management) : std::nullopt;
    if (!answer) {
      ADD_FAILURE() << "no answer comes to command " << request.DbcApiCode;
      return {-1000, "no answer"};
    }
    const Outcome outcome{answer->RowId, answer->Strings[3]};
    EXPECT_EQ(*frame, ManagementFrame(request, outcome));
    return outcome;
  }
  Outcome Ask(int command, std::int32_t rowId = 0, const std::string& argument = {},
              const Place& place = Place::Here()) {
    return Receive(Send(command, rowId, argument), place);
  }
  int Result(int command, std::int32_t rowId = 0, const std::string& argument = {},
             const Place& place = Place::Here()) {
    const Outcome outcome = Ask(command, rowId, argument, place);
    EXPECT_EQ(outcome.Item, "") << "no item belongs to command " << command;
    return outcome.Result;
  }

  int Count(const Place& place = Place::Here()) { return Result(102, 0, {}, place); }
  // The names in node table order, with a blank between them.
  std::string Names(const Place& place = Place::Here()) {
    std::string names;
    const int count = Count(place);
    for (int index = 0; index < count; ++index) {
      const Outcome name = Ask(105, index, {}, place);
      EXPECT_EQ(name.Result, 1);
      names += (index ? " " : "") + lumo::ItemText(name.Item);
    }
    return names;
  }
  std::string Default(const Place& place = Place::Here()) {
    return lumo::ItemText(Ask(103, 0, {}, place).Item);
  }
  int AddNode(const std::string& line, const Place& place = Place::Here()) {
    return Result(119, 0, line + '\0', place);
  }
  int DeleteNode(const std::string& name, const Place& place = Place::Here()) {
    return Result(123, 0, name + '\0', place);
  }
  int SetNode(const std::string& name, const std::string& line,
              const Place& place = Place::Here()) {
    return Result(126, 0, name + '\0' + '\0' + line + '\0', place);
  }
  lumo::NodeDescription Describe(const std::string& name, const Place& place = Place::Here()) {
    const Outcome outcome = Ask(120, 0, name + '\0', place);
    EXPECT_EQ(outcome.Result, 0) << name;
    const auto description = lumo::DecodeNodeDescription(outcome.Item);
    EXPECT_TRUE(description) << name;
    return description.value_or(lumo::NodeDescription{});
  }
  Client& Connection() { return client_; }

 private:
  Client client_;
};

class ManagerTest : public AgentTest {
 protected:
  // The agent runs, with this node table, and is managed.
  Manager StartWithManager(const Place& place = Place::Here()) {
    return StartWithManager(agent_, place);
  }
  Manager StartWithManager(const std::string& nodetab, const Place& place = Place::Here()) {
    StartAgent(nodetab, place);
    return Manager(agent_);
  }
  // Another agent, too.
  static Manager StartWithManager(Agent& agent, const Place& place = Place::Here()) {
    StartAgent(agent, place);
    return Manager(agent);
  }
};

}  // namespace test
