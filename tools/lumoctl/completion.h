// What the completions of the shells know of commands and options, taken from the option parser.
#pragma once
#include <string>

namespace CLI {
class App;
}

namespace lumo::ctl {

// The script with the line "@TABLE@" replaced by a line for each command, option and argument:
//
//   command|names|what is expected|words about it
//
// Of general options the command is "-", of a command itself the names are empty, and of a flag
// what is expected. Names of an option are separated by a comma; an argument's is in capitals, with
// ... behind it when there may be several. Expected is a word such as PATH, or {one,other}.
std::string WithOptionTable(const CLI::App& app, const std::string& script);

}  // namespace lumo::ctl
