// The completion script of bash, run by bash.
#include "tests/lumoctl/control.h"

namespace {

class Completion : public test::ControlTest {
 protected:
  // What is offered for the last of these words.
  std::string Offered(const std::vector<std::string>& words) {
    std::vector<std::string> arguments{
        "-c",
        "source \"$1\" || exit 9; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _lumoctl; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"",
        "bash", LUMOCTL_COMPLETION "/lumoctl.bash", LUMOCTL_PATH};
    arguments.insert(arguments.end(), words.begin(), words.end());
    test::Program bash("/bin/bash", arguments, Environment());
    EXPECT_EQ(bash.Wait(), 0) << bash.Stderr();
    EXPECT_EQ(bash.Stderr(), "");
    return bash.Stdout();
  }
  std::string Id() const { return std::to_string(agent_.ExchangeId()); }
};

TEST_F(Completion, OffersCommandsAndOptions) {
  EXPECT_EQ(Offered({"re"}), "report\nrefresh\n");
  EXPECT_EQ(Offered({"--json", "un"}), "unlock\n");
  EXPECT_EQ(Offered({"-M", "7", "lis"}), "list\n");
  EXPECT_EQ(Offered({"report", "--ma"}), "--mask\n");
  EXPECT_EQ(Offered({"apply", "-n", "--dr"}), "--dry-run\n");
  EXPECT_EQ(Offered({"--color", "a"}), "auto\nalways\n");
}

TEST_F(Completion, OffersTheNodesOfTheAgent) {
  Start("SRV1 REZ\nSRV2 REZ\nHERE LOCALS 5\n");
  EXPECT_EQ(Offered({"-M", Id(), "show", "SRV"}), "SRV1\nSRV2\n");
  EXPECT_EQ(Offered({"-M", Id(), "del", "h"}), "HERE\n");
  EXPECT_EQ(Offered({"--socket", agent_.SocketPath(), "ping", ""}), "SRV1\nSRV2\nHERE\ndefault\n");
  EXPECT_EQ(Offered({"-M", Id(), "query", "-n", "srv2"}), "SRV2\n");
  EXPECT_EQ(Offered({"-M", Id(), "show", "SRV1", ""}), "\n");
}

TEST_F(Completion, NeitherRunsNorExpandsWhatANameHolds) {
  Start("$(id) REZ\n`id` REZ\n* REZ\n");
  EXPECT_EQ(Offered({"-M", Id(), "show", "$"}), "\\$\\(ID\\)\n");
  EXPECT_EQ(Offered({"-M", Id(), "show", "`"}), "\\`ID\\`\n");
  EXPECT_EQ(Offered({"-M", Id(), "show", "*"}), "\\*\n");
}

TEST_F(Completion, OffersFiles) {
  const std::string path = Write("table-7", "");
  EXPECT_EQ(Offered({"lint", agent_.Folder().string() + "/table"}), path + "\n");
  EXPECT_EQ(Offered({"report", "--log", agent_.Folder().string() + "/table"}), path + "\n");
}

TEST_F(Completion, WithoutAnAgentThereAreNoNames) {
  EXPECT_EQ(Offered({"-M", Id(), "del", ""}), "default\n");
}

}  // namespace
