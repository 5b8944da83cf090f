#include "tools/lumo_query/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <utility>

#include "tools/client/connection.h"

namespace lumo::query {
namespace {

constexpr char kDescription[] =
    "Sends SQL to a node through the agent of this machine and prints the rows, or manages the\n"
    "agent's node table. A NODE is a name, #N for the node with number N, or \"default\".";
constexpr char kFooter[] =
    "Exit status: 0 done, 1 the node refused, 2 the agent refused, 3 no agent or no answer,\n"
    "4 bad command line. NET_MBX and TAVRIN_TMP are honoured.";
constexpr std::size_t kNodeSize = 8;
constexpr double kMaxTimeout = 1e6;

struct CommandOption {
  const char* Name;
  enum Command Command;
  int LeastArguments, MostArguments;
  const char* Argument;
  const char* Help;
};

constexpr CommandOption kCommands[] = {
    {"--default", Command::Default, 0, 1, "[NODE]", "print the default node, or make this node it"},
    {"--show", Command::Show, 1, 1, "NODE", "describe a node"},
    {"--add", Command::Add, 1, 1, "LINE", "add a node table line"},
    {"--set", Command::Set, 2, 2, "NODE LINE", "redefine a node"},
    {"--delete", Command::Delete, 1, 1, "NODE", "delete a node"},
};
constexpr CommandOption kFlags[] = {
    {"--list", Command::List, 0, 0, "", "list the nodes; * marks the default"},
    {"--path", Command::Path, 0, 0, "", "print the node table's path"},
    {"--lock", Command::Lock, 0, 0, "", "take the lock on the node table"},
    {"--unlock", Command::Unlock, 0, 0, "", "give the lock back"},
    {"--status", Command::Status, 0, 0, "", "print the state of the lock"},
};

void AddGeneral(CLI::App* app, Options* options) {
  app->add_option("-M", options->ExchangeId, "exchange id of the agent")->capture_default_str();
  app->add_option("-n,--node", options->Node, "node to ask; none: the default node")
      ->check([](const std::string& name) {
        return name.size() > kNodeSize ? "a node's name has at most 8 characters" : std::string();
      });
  app->add_option("--timeout", options->TimeoutSeconds, "seconds to wait for an answer")
      ->capture_default_str()
      ->check(CLI::Range(0.0, kMaxTimeout));
  app->add_option("--owner", options->Owner, "who holds the lock")->capture_default_str();
  app->add_flag("-v,--verbose", options->Verbose, "print row count, size and code as well");
}

void AddCommands(CLI::App* app, Options* options) {
  const auto choose = [options](enum Command command, std::vector<std::string> arguments) {
    if (options->Command != Command::Query)
      throw CLI::ValidationError("only one command can be given at a time");
    options->Command = command;
    options->Arguments = std::move(arguments);
    // An option without an argument comes with an empty one.
    if (command == Command::Default && options->Arguments == std::vector<std::string>{""})
      options->Arguments.clear();
  };
  for (const CommandOption& flag : kFlags)
    app->add_flag_callback(
        flag.Name, [choose, &flag] { choose(flag.Command, {}); }, flag.Help);
  for (const CommandOption& option : kCommands)
    app->add_option_function<std::vector<std::string>>(
           option.Name,
           [choose, &option](const std::vector<std::string>& arguments) {
             choose(option.Command, arguments);
           },
           option.Help)
        ->expected(option.LeastArguments, option.MostArguments)
        ->type_name(option.Argument);
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options options;
  options.ExchangeId = ExchangeId();
  options.Owner = getppid();
  std::vector<std::string> sql;
  CLI::App app(kDescription, "lumo_query");
  app.footer(kFooter);
  AddGeneral(&app, &options);
  AddCommands(&app, &options);
  app.add_option("sql", sql, "SQL to send, each text a request of its own");
  try {
    app.parse(argc, argv);
    if (options.Command == Command::Query && sql.empty())
      throw CLI::RequiredError("SQL or a command");
    if (options.Command != Command::Query && !sql.empty())
      throw CLI::ValidationError("a command and SQL cannot be given together");
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? kOk : kUsage);
  }
  if (options.Command == Command::Query) options.Arguments = std::move(sql);
  return options;
}

}  // namespace lumo::query
