#include "tools/lumo_node/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <map>
#include <stdexcept>

namespace lumo::node {
namespace {

constexpr char kDescription[] =
    "A stand-in database node: SQL from an embedded database over the three transports.\n"
    "The first counted string of a request is its SQL; the fourth of the answer holds the rows:\n"
    "columns separated by a tab, rows by a newline. In a value, a backslash, tab, newline,\n"
    "carriage return and NUL are written \\\\ \\t \\n \\r \\0; a null is \\N, a blob X'hex'.\n"
    "A result that does not fit one message is cut at a row's end and a last line says so.\n"
    "\n"
    "lumo_node --tell PATH [FAULT...] gives the node that has the control socket PATH these "
    "faults\n"
    "and no others, lumo_node --tell PATH --stop ends it.";

constexpr int kUsage = 2;
constexpr char kTell[] = "--tell", kStop[] = "--stop";

std::int32_t ParseKey(const std::string& text) {
  char* end = nullptr;
  const long key = std::strtol(text.c_str(), &end, 0);
  if (*end || text.empty() || key < 1 || key > INT32_MAX)
    throw CLI::ValidationError("--ipc", "the key must be a number above 0");
  return static_cast<std::int32_t>(key);
}

void AddPlaces(CLI::App* app, Options* options) {
  app->add_option("--listen", options->Listen, "listen on this TCP port; 0: any");
  app->add_option("--bind", options->Bind, "address to listen on")->capture_default_str();
  app->add_option("--local", options->Local, "listen on the UNIX-domain socket of this exchange id")
      ->check(CLI::NonNegativeNumber);
  app->add_option_function<std::string>(
      "--ipc", [options](const std::string& key) { options->Ipc = ParseKey(key); },
      "serve System V IPC under this key (0x: hexadecimal)");
}

void AddDatabase(CLI::App* app, Options* options) {
  app->add_option("--database", options->Database, "database file")->capture_default_str();
  app->add_option("--init", options->InitFiles, "run this file of SQL at the start")
      ->check(CLI::ExistingFile);
  app->add_option("--sql", options->InitSql, "run this SQL at the start, after --init");
  app->add_option("--log", options->Log, "log to this file instead of standard error");
  app->add_option("--control", options->Control, "listen on this UNIX-domain socket for --tell");
  app->add_flag("--echo", options->Echo,
                "answer with the request itself, for lumo_load; one with the command HOLD never");
  app->add_flag("--background", options->Background,
                "return when it listens, and go on in the background");
}

void AddFaults(CLI::App* app, Faults* faults) {
  static const std::map<std::string, Malformed> kKinds{{"length", Malformed::Length},
                                                       {"strings", Malformed::Strings},
                                                       {"zero", Malformed::Zero},
                                                       {"truncated", Malformed::Truncated}};
  app->add_option("--delay", faults->DelayMs, "answer after so many milliseconds")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--out-of-order", faults->OutOfOrder,
                  "collect so many requests, then answer in reverse")
      ->check(CLI::PositiveNumber);
  app->add_flag("--silent", faults->Silent, "never answer");
  app->add_flag("--deaf", faults->Deaf, "read nothing");
  app->add_flag("--twice", faults->Twice, "answer twice");
  app->add_option("--close-after", faults->CloseAfter,
                  "close a connection at its Nth packet, control packets included")
      ->check(CLI::PositiveNumber);
  app->add_option("--malformed", faults->Malformed,
                  "answer with bad packets: length, strings, zero or truncated")
      ->transform(CLI::CheckedTransformer(kKinds).description("KIND"));
}

// Everything behind `--tell PATH`, which the told node parses as well.
void AddTelling(CLI::App* app, Options* options, int argc, char** argv) {
  app->add_option(kTell, options->Tell, "tell the node with this control socket its faults");
  app->add_flag(kStop, options->Stop, "with --tell: end the node");
  for (int i = 1; i < argc; ++i) {
    if (argv[i] == std::string(kTell))
      ++i;
    else
      options->TellLine += (options->TellLine.empty() ? "" : " ") + std::string(argv[i]);
  }
}

void Check(const Options& options) {
  if (!options.Tell.empty()) {
    if (options.TellLine != kStop) ParseFaults(options.TellLine);
  } else if (options.Stop) {
    throw CLI::RequiredError(kTell);
  } else if (!options.Listen && !options.Local && !options.Ipc) {
    throw CLI::RequiredError("at least one of --listen, --local and --ipc");
  }
}

}  // namespace

Faults ParseFaults(const std::string& line) {
  Faults faults;
  CLI::App app;
  app.set_help_flag();
  AddFaults(&app, &faults);
  try {
    app.parse(line);
  } catch (const CLI::ParseError& error) {
    throw std::invalid_argument(error.what());
  }
  return faults;
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription, "lumo_node");
  AddPlaces(&app, &options);
  AddDatabase(&app, &options);
  AddFaults(&app, &options.Faults);
  AddTelling(&app, &options, argc, argv);
  try {
    app.parse(argc, argv);
    Check(options);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? 0 : kUsage);
  } catch (const std::invalid_argument& error) {
    std::cerr << "--tell: " << error.what() << '\n';
    std::exit(kUsage);
  }
  return options;
}

}  // namespace lumo::node
