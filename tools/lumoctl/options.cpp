#include "tools/lumoctl/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "lib/include/lumo.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"

namespace lumo::ctl {
namespace {

constexpr char kDescription[] =
    "Looks after the network agent of this machine and its node table. A NODE is a name, #N for\n"
    "the node with number N, or \"default\". A LINE is a node table line, in one argument or word\n"
    "by word.";
constexpr char kFooter[] =
    "Exit status:\n"
    "  0  done\n"
    "  1  no: refused by the agent or the node, not alive, differences found, faults found\n"
    "  2  bad command line, or a file that cannot be read\n"
    "  3  no agent answers, or the connection to it was lost\n"
    "  4  the time was over\n"
    "  5  accepted, but in force only when the link of a node in use is taken down\n"
    "  6  sent, and it is not known whether it was carried out\n"
    "  7  failed on this side: a program cannot be run, a file cannot be written\n"
    "NET_MBX and TAVRIN_TMP are honoured. A message goes to standard error; with --json standard\n"
    "output holds an object \"error\" as well.";
constexpr double kMaxTimeout = 1e6;

struct Parser {
  CLI::App App{kDescription, "lumoctl"};
  Options Result;
  std::string Color = "auto";

  CLI::App* Command(const char* name, const char* help, int (*run)(const Options&)) {
    CLI::App* const command = App.add_subcommand(name, help);
    command->fallthrough();
    command->callback([this, run] { Result.Run = run; });
    return command;
  }
  void Arguments(CLI::App* command, const char* name, const char* help, int least, int most) {
    CLI::Option* const option = command->add_option(name, Result.Arguments, help);
    option->expected(least, most);
    if (least > 0) option->required();
  }
  void Flag(CLI::App* command, const char* name, bool* value, const char* help) {
    command->add_flag(name, *value, help);
  }
  void Owner(CLI::App* command) {
    command->add_option("--owner", Result.Owner, "who holds the lock: a number")
        ->default_str("the parent's process id");
  }
  void Locking(CLI::App* command) {
    Owner(command);
    Flag(command, "--no-lock", &Result.NoLock, "go on without the lock on the node table");
  }
  void Table(CLI::App* command) {
    command->add_option("--file", Result.File, "node table to take the lines from")
        ->default_str("the agent's");
  }
  void Program(CLI::App* command) {
    command->add_option("--program", Result.Program, "the agent's program");
  }

  void AddGeneral();
  void AddLooking();
  void AddChanging();
  void AddTesting();
  void AddTableCommands();
};

void Parser::AddGeneral() {
  App.require_subcommand(1);
  App.footer(kFooter);
  App.set_version_flag("--version", std::string("lumoctl ") + LUMO_VERSION);
  App.add_option("-M,--exchange", Result.ExchangeId, "exchange id of the agent")
      ->default_str("NET_MBX or 20562");
  App.add_option("--socket", Result.Socket, "path of the agent's socket, in place of -M");
  App.add_option("--timeout", Result.TimeoutSeconds, "seconds to wait; by command 5 or 30")
      ->check(CLI::Range(0.0, kMaxTimeout));
  App.add_flag("--json", Result.Json, "print JSON");
  App.add_option("--color", Color, "colours")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
}

void Parser::AddLooking() {
  CLI::App* const list = Command("list", "list the nodes; * marks the default", RunList);
  Flag(list, "--names", &Result.Names, "only the names, one a line");
  Arguments(Command("show", "describe a node", RunShow), "NODE", "the node", 1, 1);
  Command("path", "print the path of the node table file", RunPath);
  CLI::App* const status = Command("status", "the agent and the node table's lock", RunStatus);
  Owner(status);
  Command("wait", "wait until the agent answers (30 s)", RunWait);
  CLI::App* const query = Command("query", "send SQL to a node and print its rows", RunQuery);
  query->add_option("-n,--node", Result.Node, "node to ask; none: the default node");
  Arguments(query, "SQL", "texts, each a request of its own", 1, 10000);
}

void Parser::AddChanging() {
  CLI::App* const usual = Command("default", "print the default node, or make this it", RunDefault);
  Arguments(usual, "NODE", "the new default", 0, 1);
  Locking(usual);
  CLI::App* const add = Command("add", "add a node", RunAdd);
  Arguments(add, "LINE", "its node table line", 1, 10000);
  Locking(add);
  CLI::App* const set = Command("set", "give a node a new definition", RunSet);
  Arguments(set, "NODE-LINE", "the node and its new node table line", 2, 10000);
  Locking(set);
  CLI::App* const del = Command("del", "delete a node", RunDelete);
  Arguments(del, "NODE", "the node", 1, 1);
  Locking(del);
  Owner(Command("lock", "take the lock on the node table", RunLock));
  Owner(Command("unlock", "give the lock back", RunUnlock));
}

void Parser::AddTesting() {
  CLI::App* const ping =
      Command("ping", "test whether nodes are alive, all or one (30 s)", RunPing);
  Arguments(ping, "NODE", "the node; none: all", 0, 1);
  ping->add_option("--file", Result.File, "test the nodes of this node table; needs no agent");
  Program(ping);
  CLI::App* const report = Command("report", "print all that a support case needs", RunReport);
  Flag(report, "--mask", &Result.Mask, "pseudonyms for names and addresses of nodes");
  Table(report);
  Program(report);
  report->add_option("--log", Result.Log, "the agent's log")->default_str("its standard error");
  report->add_option("--lines", Result.LogLines, "last lines of the log")
      ->check(CLI::Range(0, 100000))
      ->capture_default_str();
  report->add_option("-o,--output", Result.Output, "file to write, in place of standard output");
  CLI::App* const exporter = Command("export", "metrics in Prometheus text form", RunExport);
  exporter->add_option("-o,--output", Result.Output, "file to replace at once, as for a collector");
  Flag(exporter, "--no-ping", &Result.NoPing, "do not test the nodes");
  Program(exporter);
}

void Parser::AddTableCommands() {
  CLI::App* const refresh =
      Command("refresh", "send a node's line again: its host is looked up anew", RunRefresh);
  Arguments(refresh, "NODE", "the node", 0, 1);
  Flag(refresh, "--all", &Result.All, "all nodes of the node table");
  Table(refresh);
  Locking(refresh);
  CLI::App* const apply = Command("apply", "make the agent's nodes those of a file", RunApply);
  apply->add_option("FILE", Result.File, "the node table")->required();
  Flag(apply, "-n,--dry-run", &Result.DryRun, "only show the differences");
  Flag(apply, "--keep", &Result.Keep, "keep nodes that are not in the file");
  Flag(apply, "--all", &Result.All, "send the lines of equal nodes too");
  Locking(apply);
  CLI::App* const lint = Command("lint", "look for faults in a node table", RunLint);
  lint->add_option("FILE", Result.File, "the node table; - for standard input")->required();
  lint->footer("Behind -- follow options of the agent, to be looked at as well.");
  Flag(lint, "--no-resolve", &Result.NoResolve, "do not look hosts up");
  Flag(lint, "--strict", &Result.Strict, "notes count as faults");
}

bool WantsColor(const std::string& word) {
  if (word != "auto") return word == "always";
  const char* const terminal = std::getenv("TERM");
  const char* const refused = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) && !(refused && *refused) && terminal &&
         std::strcmp(terminal, "dumb") != 0;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Parser parser;
  parser.Result.Owner = getppid();
  parser.AddGeneral();
  parser.AddLooking();
  parser.AddChanging();
  parser.AddTesting();
  parser.AddTableCommands();
  // What is behind "--" of lint is for the agent, and no argument of this program.
  const auto separator = std::find(argv + 1, argv + argc, std::string("--"));
  const bool isLint = std::find(argv + 1, separator, std::string("lint")) != separator;
  const auto end = isLint ? separator : argv + argc;
  try {
    parser.App.parse(static_cast<int>(end - argv), argv);
  } catch (const CLI::ParseError& error) {
    std::exit(parser.App.exit(error) == 0 ? kDone : kUsage);
  }
  if (end != argv + argc) parser.Result.Arguments.assign(end + 1, argv + argc);
  parser.Result.Color = !parser.Result.Json && WantsColor(parser.Color);
  return parser.Result;
}

}  // namespace lumo::ctl
