#include "tools/lumoctl/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/include/lumo.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/completion.h"
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
    "output holds an object \"error\" as well, unless the command line itself is bad.";
constexpr double kMaxTimeout = 1e6;

// Help in words: what is expected by name, and behind a command's own options the general ones.
class HelpInWords : public CLI::Formatter {
 public:
  std::string make_option_usage(const CLI::Option* option) const override {
    const std::string name =
        make_option_name(option, true) + (option->get_expected_max() > 1 ? " ..." : "");
    return option->get_required() ? name : '[' + name + ']';
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    if (option->get_positional() || option->get_type_size() == 0) return "";
    const std::string name = option->get_type_name();  // with its checks behind a colon
    return ' ' + name.substr(0, name.find(':'));
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string usual = option->get_default_str();
    return option->get_description() + (usual.empty() ? "" : "; unless given: " + usual);
  }
  std::string make_footer(const CLI::App* app) const override {
    const std::string footer = Formatter::make_footer(app);
    const CLI::App* const parent = app->get_parent();
    if (!parent) return footer;
    const auto isGeneral = [parent](const CLI::Option* option) {
      return option != parent->get_help_ptr() && option != parent->get_version_ptr();
    };
    return make_group("General options", false, parent->get_options(isGeneral)).substr(1) + '\n' +
           footer;
  }
};

std::string CheckTimeout(const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (*end == '\0' && seconds >= 0 && seconds <= kMaxTimeout) return "";
  return text + " is no number of seconds from 0 to 1000000";
}

struct Parser {
  CLI::App App{kDescription, "lumoctl"};
  Options Result;
  std::string Color = "auto";

  Parser() {
    AddGeneral();
    AddLooking();
    AddChanging();
    AddTesting();
    AddWatching();
    AddTableCommands();
  }
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
        ->type_name("NUMBER")
        ->default_str("the parent's process id");
  }
  void Locking(CLI::App* command) {
    Owner(command);
    Flag(command, "--no-lock", &Result.NoLock, "go on without the lock on the node table");
  }
  void Table(CLI::App* command) {
    Path(command, "--file", &Result.File, "node table to take the lines from")
        ->default_str("the agent's");
  }
  void Program(CLI::App* command) {
    Path(command, "--program", &Result.Program, "the agent's program");
  }
  void Lines(CLI::App* command) {
    Flag(command, "--strict", &Result.Strict, "do nothing when a line has a warning of lint");
    Locking(command);
  }
  static CLI::Option* Path(CLI::App* command, const char* name, std::string* value,
                           const char* help) {
    return command->add_option(name, *value, help)->type_name("PATH");
  }

  void AddGeneral();
  void AddLooking();
  void AddChanging();
  void AddTesting();
  void AddWatching();
  void AddTableCommands();
};

void Parser::AddGeneral() {
  App.formatter(std::make_shared<HelpInWords>());
  App.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string("lumoctl: ") + error.what() + "\nRun with --help for more information.\n";
  });
  App.require_subcommand(1);
  App.footer(kFooter);
  App.set_version_flag("--version", [this] { return VersionText(Result); });
  App.add_option("-M,--exchange", Result.ExchangeId, "exchange id of the agent")
      ->type_name("ID")
      ->default_str("NET_MBX or 20562");
  Path(&App, "--socket", &Result.Socket, "path of the agent's socket, in place of -M");
  App.add_option("--timeout", Result.TimeoutSeconds, "how long to wait; by command 5 or 30")
      ->type_name("SECONDS")
      ->check(CheckTimeout);
  App.add_flag("--json", Result.Json, "print JSON");
  App.add_option("--color", Color, "colours: auto, always or never")
      ->type_name("WHEN")
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
  CLI::App* const query =
      Command("query", "send SQL to a node and print its rows (30 s)", RunQuery);
  query->add_option("-n,--node", Result.Node, "node to ask; none: the default node")
      ->type_name("NAME");
  Arguments(query, "SQL", "texts, each a request of its own", 1, 10000);
}

void Parser::AddChanging() {
  CLI::App* const usual = Command("default", "print the default node, or make this it", RunDefault);
  Arguments(usual, "NODE", "the new default", 0, 1);
  Locking(usual);
  CLI::App* const add = Command("add", "add a node", RunAdd);
  Arguments(add, "LINE", "its node table line", 1, 10000);
  Lines(add);
  CLI::App* const set = Command("set", "give a node a new definition", RunSet);
  set->add_option("NODE", Result.Node, "the node")->required();
  Arguments(set, "LINE", "its new node table line", 1, 10000);
  Lines(set);
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
  Path(ping, "--file", &Result.File, "test the nodes of this node table; needs no agent");
  Program(ping);
  CLI::App* const report = Command("report", "print all that a support case needs", RunReport);
  Flag(report, "--mask", &Result.Mask, "pseudonyms for names and addresses of nodes");
  Table(report);
  Program(report);
  Path(report, "--log", &Result.Log, "the agent's log")->default_str("its standard error");
  report->add_option("--lines", Result.LogLines, "last lines of the log")
      ->type_name("NUMBER")
      ->check(CLI::Range(0, 100000))
      ->capture_default_str();
  Path(report, "-o,--output", &Result.Output, "file to write, in place of standard output");
  CLI::App* const exporter = Command("export", "metrics in Prometheus text form (30 s)", RunExport);
  Path(exporter, "-o,--output", &Result.Output, "file to replace at once, as for a collector");
  exporter
      ->add_option("--listen", Result.Listen,
                   "ADDRESS:PORT to answer GET /metrics on; nodes are not tested")
      ->type_name("ADDRESS:PORT");
  Flag(exporter, "--no-ping", &Result.NoPing, "do not test the nodes");
  Program(exporter);
}

void Parser::AddWatching() {
  CLI::App* const stats = Command(
      "stats", "counters of the agent and its nodes, or of one node; does not ask it", RunStats);
  Arguments(stats, "NODE", "the node; none: all", 0, 1);
  Command("clients", "the connections of clients; does not ask the agent", RunClients);
  CLI::App* const top = Command("top", "a live screen of nodes and the busiest clients", RunTop);
  top->add_option("-d,--delay", Result.DelaySeconds, "seconds between two readings")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.05, 3600.0))
      ->capture_default_str();
  top->add_option("--count", Result.Count, "readings to show; 0: without end")
      ->type_name("NUMBER")
      ->check(CLI::Range(0, 1000000000))
      ->capture_default_str();
  CLI::App* const drain = Command(
      "drain", "wait until no client is connected and nothing is in flight (30 s)", RunDrain);
  Flag(drain, "--stop", &Result.Stop, "then stop the agent");
  CLI::App* const log = Command("log", "print the agent's log level, or set it", RunLog);
  Arguments(log, "LEVEL", "0 to 15", 0, 1);
  log->get_option("LEVEL")->check(CLI::Range(0, 15));
  CLI::App* const trace =
      Command("trace", "a log of level 15, one line a request; needs no agent", RunTrace);
  trace->add_option("FILE", Result.File, "the log; - for standard input")->required();
  Flag(trace, "--live", &Result.Live, "take the time when a line comes, not the log's clock");
  trace->add_option("--tag", Result.Tag, "only requests with this tag")->type_name("NUMBER");
  trace->add_option("--pid", Result.Pid, "only requests of this process")->type_name("NUMBER");
  trace->add_option("--node", Result.Node, "only requests for this node")->type_name("NAME");
  trace->add_option("--slowest", Result.Slowest, "only so many, the slowest first")
      ->type_name("NUMBER")
      ->check(CLI::Range(1, 1000000));
}

void Parser::AddTableCommands() {
  CLI::App* const refresh =
      Command("refresh", "send a node's line again: its host is looked up anew", RunRefresh);
  Arguments(refresh, "NODE", "the node", 0, 1);
  Flag(refresh, "--all", &Result.All, "all nodes of the node table");
  Table(refresh);
  Lines(refresh);
  CLI::App* const apply = Command("apply", "make the agent's nodes those of a file", RunApply);
  apply->add_option("FILE", Result.File, "the node table")->required();
  Flag(apply, "-n,--dry-run", &Result.DryRun, "only show the differences");
  Flag(apply, "--keep", &Result.Keep, "keep nodes that are not in the file");
  Flag(apply, "--all", &Result.All, "send the lines of equal nodes too");
  Lines(apply);
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

std::string CompletionOf(const std::string& script) {
  return WithOptionTable(Parser().App, script);
}

Options ParseOptions(int argc, char** argv) {
  Parser parser;
  parser.Result.Owner = getppid();
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
