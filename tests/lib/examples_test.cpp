// The examples do what they say.
#include "tests/lib/lib_setting.h"
#include "tests/process/program.h"

namespace {

class Examples : public ::testing::Test {
 protected:
  Examples() : node_({"--listen", "0", "--sql", "create table t(a); insert into t values (42)"}) {}
  void SetUp() override {
    agent_.Nodetab(node_.Line("SRV"));
    ASSERT_TRUE(agent_.Start());
  }
  void Expect(const std::string& program, const std::vector<std::string>& arguments, int status,
              const std::string& out, const std::string& err,
              std::map<std::string, std::string> environment = {}) {
    environment["TAVRIN_TMP"] = agent_.SocketFolder();
    environment["NET_MBX"] = std::to_string(agent_.ExchangeId());
    test::Program run(program, arguments, environment);
    EXPECT_EQ(run.Wait(), status);
    EXPECT_EQ(run.Stdout(), out);
    EXPECT_EQ(run.Stderr(), err);
  }

  test::NodeProgram node_;
  test::Agent agent_;
};

TEST_F(Examples, C) {
  Expect(LUMO_EXAMPLE_C, {"SRV", "select a from t"}, 0, "42\n", "");
  Expect(LUMO_EXAMPLE_C, {"NOBODY", "select a from t"}, 1, "",
         "the node table has no such node (code 4050)\n");
  agent_.Stop();
  Expect(LUMO_EXAMPLE_C, {"SRV", "x"}, 1, "", "no agent answers at the socket\n");
}

TEST_F(Examples, Cpp) { Expect(LUMO_EXAMPLE_CPP, {"select a from t", "SRV"}, 0, "SRV: 42\n", ""); }

TEST_F(Examples, Python) {
  std::map<std::string, std::string> environment;
  if (LUMO_SANITIZED) {
    // A library with the sanitizer wants its runtime in the process from the start.
    FILE* const pipe = popen("c++ -print-file-name=libasan.so", "r");
    char path[4096] = "";
    ASSERT_TRUE(fgets(path, sizeof path, pipe));
    pclose(pipe);
    environment["LD_PRELOAD"] = std::string(path, std::strcspn(path, "\n"));
    environment["ASAN_OPTIONS"] = "detect_leaks=0";  // the interpreter's own
  }
  Expect("/usr/bin/env", {"python3", LUMO_EXAMPLE_PY, LUMO_LIBRARY, "SRV", "select a from t"}, 0,
         "42\n", "", environment);
  Expect("/usr/bin/env", {"python3", LUMO_EXAMPLE_PY, LUMO_LIBRARY, "NOBODY", "x"}, 1, "",
         "the node table has no such node (code 4050)\n", environment);
}

}  // namespace
