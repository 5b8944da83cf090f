#include "tools/lumoctl/completion.h"

#include <CLI/CLI.hpp>

namespace lumo::ctl {
namespace {

constexpr char kPlace[] = "@TABLE@\n";

std::string OptionLine(const std::string& command, const std::string& names,
                       const std::string& expected, const std::string& words) {
  return command + '|' + names + '|' + expected + '|' + words + '\n';
}

// "WHEN:{auto,always}" is {auto,always}, "NUMBER:INT in [0 - 9]" is NUMBER.
std::string Expected(const CLI::Option* option) {
  if (option->get_type_size() == 0) return "";
  const std::string type = option->get_type_name();
  const std::size_t choices = type.find('{');
  return choices == std::string::npos ? type.substr(0, type.find(':')) : type.substr(choices);
}

std::string OptionLine(const std::string& command, const CLI::Option* option) {
  std::string name = option->get_name(option->get_positional(), true);
  if (!option->get_positional())
    return OptionLine(command, name, Expected(option), option->get_description());
  const std::string expected = name;
  if (option->get_expected_max() > 1) name += "...";
  return OptionLine(command, name, expected, option->get_description());
}

std::string CommandLines(const CLI::App* command) {
  std::string lines = OptionLine(command->get_name(), "", "", command->get_description());
  for (const CLI::Option* option : command->get_options())
    if (option != command->get_help_ptr()) lines += OptionLine(command->get_name(), option);
  return lines;
}

}  // namespace

std::string WithOptionTable(const CLI::App& app, const std::string& script) {
  std::string table;
  for (const CLI::Option* option : app.get_options()) table += OptionLine("-", option);
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    table += CommandLines(command);
  const std::size_t place = script.find(kPlace);
  if (place == std::string::npos) throw std::invalid_argument("no place for the table");
  return std::string(script).replace(place, sizeof kPlace - 1, table);
}

}  // namespace lumo::ctl
