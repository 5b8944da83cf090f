// The completions, run by bash and by zsh.
#include "tools/lumoctl/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <set>
#include <sstream>

#include "tests/lumoctl/control.h"
#include "tests/support/text.h"

namespace {

class Completion : public test::ControlTest {
 protected:
  // What bash offers for the last of these words.
  std::string Offered(const std::vector<std::string>& words) {
    return OfferedBy(LUMOCTL_COMPLETION "/lumoctl.bash", words);
  }
  std::string OfferedBy(const std::string& script, const std::vector<std::string>& words) {
    std::vector<std::string> arguments{
        "-c",
        "source \"$1\" || exit 9; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _lumoctl; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"",
        "bash", script, LUMOCTL_PATH};
    arguments.insert(arguments.end(), words.begin(), words.end());
    test::Program bash("/bin/bash", arguments, Environment());
    EXPECT_EQ(bash.Wait(), 0) << bash.Stderr();
    EXPECT_EQ(bash.Stderr(), "");
    return bash.Stdout();
  }
  // What zsh makes of each line: all that it offers in place of the last word.
  std::vector<std::string> Completed(const std::vector<std::string>& lines,
                                     const std::string& folder = LUMOCTL_COMPLETION) {
    const std::string program = LUMOCTL_PATH " ";
    std::vector<std::string> arguments{"-f", TEST_FOLDER "/complete.zsh", folder};
    for (const std::string& line : lines) arguments.push_back(program + line);
    test::Program zsh("/bin/zsh", arguments, Environment());
    EXPECT_EQ(zsh.Wait(), 0) << zsh.Stderr();
    std::vector<std::string> completed = test::Lines(zsh.Stdout());
    for (std::string& line : completed)
      line.erase(0, line.rfind(program, 0) == 0 ? program.size() : 0);
    return completed;
  }
  // The options that the help of a command lists, or with "" those that all commands have.
  std::set<std::string> OptionsOfHelp(const std::string& command) {
    std::string help = Run(command.empty() ? std::vector<std::string>{"--help"}
                                           : std::vector<std::string>{command, "--help"})
                           .Out;
    help = help.substr(0, help.find("General options:"));
    std::set<std::string> found;
    for (const std::string& line : test::Lines(help)) {
      const auto groups = test::Match(line, "^ +(-[^ ]+).*");
      if (groups.empty()) continue;
      for (const std::string& name : Split(groups[1], ',')) found.insert(name);
    }
    found.insert({"-h", "--help"});
    return found;
  }
  std::vector<std::string> Commands() {
    const std::string help = Run({"--help"}).Out;
    std::vector<std::string> found;
    for (const std::string& line : test::Lines(help.substr(help.find("Subcommands:")))) {
      const auto groups = test::Match(line, "^  ([a-z]+) .*");
      if (!groups.empty()) found.push_back(groups[1]);
    }
    EXPECT_GT(found.size(), 20U);
    return found;
  }
  static std::vector<std::string> Split(const std::string& text, char at) {
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, at);) parts.push_back(part);
    return parts;
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

TEST_F(Completion, OffersWhatTheHelpOfEachCommandLists) {
  std::set<std::string> general = OptionsOfHelp("");
  for (const std::string& command : Commands()) {
    std::set<std::string> expected = OptionsOfHelp(command);
    expected.insert(general.begin(), general.end());
    const auto offered = test::Lines(Offered({command, "-"}));
    EXPECT_EQ(std::set<std::string>(offered.begin(), offered.end()), expected) << command;
  }
  const auto commands = test::Lines(Offered({""}));
  EXPECT_EQ(commands, Commands());
}

TEST_F(Completion, KnowsWhatAnOptionExpects) {
  EXPECT_EQ(Offered({"log", "1"}), "1\n10\n11\n12\n13\n14\n15\n");
  EXPECT_EQ(Offered({"trace", "--tag", ""}), "\n");  // any number
  EXPECT_EQ(Offered({"report", "--lines", "7", "--li"}), "--lines\n");
}

// Nothing but the parser has to be told of an option.
TEST_F(Completion, OffersAnOptionThatIsNewInTheParser) {
  CLI::App app;
  std::string value;
  bool flag = false;
  CLI::App* const command = app.add_subcommand("brand", "a new command");
  command->add_option("--new", value, "takes [one] of two")
      ->type_name("WHICH")
      ->check(CLI::IsMember({"first", "second"}));
  command->add_flag("-f,--flag", flag, "a | b");
  const auto make = [&](const std::string& name) {
    const std::string path = agent_.Folder() / name;
    const std::string script = test::ReadFile(LUMOCTL_SCRIPTS "/" + name);
    test::WriteFile(path, lumo::ctl::WithOptionTable(app, script));
    return path;
  };
  const std::string bash = make("lumoctl.bash");
  make("_lumoctl");
  EXPECT_EQ(OfferedBy(bash, {"br"}), "brand\n");
  EXPECT_EQ(OfferedBy(bash, {"brand", "--n"}), "--new\n");
  EXPECT_EQ(OfferedBy(bash, {"brand", "--new", ""}), "first\nsecond\n");
  EXPECT_EQ(OfferedBy(bash, {"brand", "-"}), "-h\n--help\n--new\n-f\n--flag\n");
  const std::string folder = agent_.Folder();
  using Words = std::vector<std::string>;
  EXPECT_EQ(Completed({"b", "brand --n", "brand --new ", "brand --f"}, folder),
            (Words{"brand ", "brand --new ", "brand --new first second ", "brand --flag "}));
}

TEST_F(Completion, ZshOffersTheSame) {
  Start("SRV1 REZ\nSRV2 REZ\nHERE LOCALS 5\n");
  const std::string id = "-M " + Id() + ' ', path = Write("table-7", "");
  const std::string start = path.substr(0, path.size() - 1);
  const std::pair<std::string, std::string> cases[] = {
      {"re", "refresh report "},
      {"--color a", "--color always auto "},
      {"apply --dr", "apply --dry-run "},
      {"apply -n --dr", "apply -n --dr"},  // given already
      {"report --ma", "report --mask "},
      {id + "show s", id + "show SRV1 SRV2 "},
      {id + "set ", id + "set HERE SRV1 SRV2 default "},
      {id + "query -n h", id + "query -n HERE "},
      {"log 1", "log 1 10 11 12 13 14 15 "},
      {"lint " + start, "lint " + path + ' '},
      {"report --log " + start, "report --log " + path + ' '},
  };
  std::vector<std::string> lines, expected;
  for (const auto& [line, result] : cases) {
    lines.push_back(line);
    expected.push_back(result);
  }
  EXPECT_EQ(Completed(lines), expected);
}

TEST_F(Completion, ZshOffersTheOptionsOfTheHelp) {
  const std::vector<std::string> commands = Commands();
  std::vector<std::string> lines;
  for (const std::string& command : commands) lines.push_back(command + " --");
  const std::vector<std::string> completed = Completed(lines);
  ASSERT_EQ(completed.size(), commands.size());
  for (std::size_t i = 0; i < commands.size(); ++i) {
    const std::vector<std::string> offered = Split(completed[i], ' ');
    for (const std::string& option : OptionsOfHelp(commands[i])) {
      const bool there = std::find(offered.begin(), offered.end(), option) != offered.end();
      EXPECT_TRUE(there || option.substr(0, 2) != "--") << commands[i] << ' ' << option;
    }
  }
}

}  // namespace
