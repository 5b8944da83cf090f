// lumoctl, run beside an agent of the test's own.
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/process/program.h"
#include "tests/support/agent.h"

namespace test {

struct CtlOutcome {
  std::optional<int> Status;
  std::string Out, Err;
};

class ControlTest : public ::testing::Test {
 protected:
  using Json = nlohmann::json;

  void Start(const std::string& nodetab) {
    agent_.Nodetab(nodetab);
    ASSERT_TRUE(agent_.Start());
  }
  std::vector<std::string> Full(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"-M", std::to_string(agent_.ExchangeId())});
    return arguments;
  }
  std::map<std::string, std::string> Environment() const {
    return {{"TAVRIN_TMP", agent_.SocketFolder()},
            {"TMPDIR", agent_.Folder()},
            {"LUMO_TCP", AgentProgram()}};
  }
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
  // The value that it prints with --json.
  Json Ask(std::vector<std::string> arguments, int status = 0) const {
    arguments.push_back("--json");
    const CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, status) << testing::PrintToString(arguments) << outcome.Err;
    Json value = Json::parse(outcome.Out, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << outcome.Out;
    return value;
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

  Agent agent_;
};

}  // namespace test
