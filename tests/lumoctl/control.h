// lumoctl, run beside an agent of the test's own.
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/process/program.h"
#include "tests/support/agent_test.h"

namespace test {

struct CtlOutcome {
  std::optional<int> Status;
  std::string Out, Err;
};

inline void ExpectHolds(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& part : parts)
    EXPECT_NE(text.find(part), std::string::npos) << part << '\n' << text;
}

// Runs lumoctl with what a fixture says.
class ControlProgram {
 protected:
  using Json = nlohmann::json;

  virtual std::vector<std::string> Full(std::vector<std::string> arguments) const = 0;
  virtual std::map<std::string, std::string> Environment() const = 0;

  CtlOutcome Run(const std::vector<std::string>& arguments) const {
    Program program(LUMOCTL_PATH, Full(arguments), Environment());
    const auto status = program.Wait();
    return {status, program.Stdout(), program.Stderr()};
  }
  void Expect(const std::vector<std::string>& arguments, int status, const std::string& out,
              const std::string& err = {}) const {
    const CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.Out, out) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.Err, err) << testing::PrintToString(arguments);
  }
  // Somewhere in what it says is this.
  void ExpectError(const std::vector<std::string>& arguments, int status,
                   const std::string& part) const {
    const CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, status) << testing::PrintToString(arguments);
    ExpectHolds(outcome.Err, {part});
  }
  // The value that it prints with --json.
  Json Ask(std::vector<std::string> arguments, int status = 0) const {
    arguments.push_back("--json");
    const CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, status) << testing::PrintToString(arguments) << outcome.Err;
    Json value = Json::parse(outcome.Out, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << outcome.Out;
    return value;
  }
};

class ControlTest : public AgentTest, protected ControlProgram {
 protected:
  using ControlProgram::Run;

  void Start(const std::string& nodetab) { StartAgent(nodetab); }
  std::vector<std::string> Full(std::vector<std::string> arguments) const override {
    arguments.insert(arguments.begin(), {"-M", std::to_string(agent_.ExchangeId())});
    return arguments;
  }
  std::map<std::string, std::string> Environment() const override {
    return {{"TAVRIN_TMP", agent_.SocketFolder()},
            {"TMPDIR", agent_.Folder()},
            {"LUMO_TCP", AgentProgram()}};
  }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string path = agent_.Folder() / name;
    WriteFile(path, text);
    return path;
  }
  std::string Names() const { return Run({"list", "--names"}).Out; }
  // A request through the agent brings the node's link up.
  void Use(const std::string& node) const {
    const CtlOutcome outcome = Run({"query", "-n", node, "select 1"});
    ASSERT_EQ(outcome.Status, 0) << outcome.Err;
  }
};

}  // namespace test
