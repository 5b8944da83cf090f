// The examples do what they say, all of them the same.
#include "tests/lib/lib_setting.h"
#include "tests/process/program.h"

namespace {

struct Example {
  const char* Name;
  std::vector<std::string> Command;
};
void PrintTo(const Example& example, std::ostream* out) { *out << example.Name; }

// The runtime of the sanitizers, which a library built with them wants in the process first.
std::string SanitizerRuntime() {
  FILE* const pipe = popen("c++ -print-file-name=libasan.so", "r");
  char path[4096] = "";
  EXPECT_TRUE(fgets(path, sizeof path, pipe));
  pclose(pipe);
  return {path, std::strcspn(path, "\n")};
}

class Examples : public test::AgentTest, public ::testing::WithParamInterface<Example> {
 protected:
  Examples() : node_({"--listen", "0", "--sql", "create table t(a); insert into t values (42)"}) {}
  void SetUp() override {
    StartAgent(node_.Line("SRV"));
    environment_ = {{"TAVRIN_TMP", agent_.SocketFolder()},
                    {"NET_MBX", std::to_string(agent_.ExchangeId())},
                    {"PYTHONPATH", LUMO_PYTHON_PATH},
                    {"PYTHONDONTWRITEBYTECODE", "1"},
                    {"LUMO_LIBRARY", LUMO_LIBRARY}};
    if (LUMO_SANITIZED && GetParam().Command.size() > 1) {  // an interpreter
      environment_["LD_PRELOAD"] = SanitizerRuntime();
      environment_["ASAN_OPTIONS"] = "detect_leaks=0";  // the interpreter's own
    }
  }
  void Expect(const std::vector<std::string>& arguments, int status, const std::string& out,
              const std::string& err) {
    std::vector<std::string> command = GetParam().Command;
    command.insert(command.end(), arguments.begin(), arguments.end());
    const std::string program = command.front();
    command.erase(command.begin());
    test::Program run(program, command, environment_);
    EXPECT_EQ(run.Wait(), status);
    EXPECT_EQ(run.Stdout(), out);
    EXPECT_EQ(run.Stderr(), err);
  }

  test::NodeProgram node_;
  std::map<std::string, std::string> environment_;
};

TEST_P(Examples, PrintsTheRows) {
  Expect({"SRV", "select a from t"}, 0, "42\n", "");
  Expect({"SRV", "select 1", "select 2"}, 0, "1\n2\n", "");
}

TEST_P(Examples, ARefusedStatementIsNoRow) {
  Expect({"SRV", "nonsense"}, 1, "",
         "example: the node refused: near \"nonsense\": syntax error (code 1)\n");
  Expect({"SRV", "select x from t", "select a from t"}, 1, "42\n",
         "example: the node refused: no such column: x (code 1)\n");
}

TEST_P(Examples, AnErrorOfTheAgent) {
  Expect({"NOBODY", "select a from t"}, 1, "",
         "example: the node table has no such node (code 4050)\n");
}

TEST_P(Examples, ARequestThatCannotBeSent) {
  Expect({"MUCHTOOLONG", "select a from t"}, 1, "",
         "example: a name, a path or the message is too long\n");
}

TEST_P(Examples, NoAgent) {
  agent_.Stop();
  Expect({"SRV", "select a from t"}, 1, "", "example: no agent answers at the socket\n");
}

TEST_P(Examples, Usage) {
  Expect({"SRV"}, 2, "", "usage: example NODE TEXT...\n");
  Expect({}, 2, "", "usage: example NODE TEXT...\n");
}

INSTANTIATE_TEST_SUITE_P(All, Examples,
                         ::testing::Values(Example{"C", {LUMO_EXAMPLE_C}},
                                           Example{"Cpp", {LUMO_EXAMPLE_CPP}},
                                           Example{"Python", {LUMO_PYTHON, LUMO_EXAMPLE_PY}}),
                         [](const auto& example) { return std::string(example.param.Name); });

}  // namespace
