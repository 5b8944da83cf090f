// The agent's command line, as it looks its options up: every argument is compared with every key,
// the values of other options too.
#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "tools/lumoctl/nodetab.h"

namespace lumo::ctl {
namespace {

struct Option {
  const char* Key;
  bool TakesValue;
};
constexpr Option kOptions[] = {
    {"H", false},
    {"?", false},
    {"HELP", false},
    {"VERSION", false},
    {"U", false},
    {"N", true},
    {"NODETAB", true},
    {"M", true},
    {"S", true},
    {"DEFAULT", true},
    {"A", false},
    {"AUTOCHANGE", false},
    {"G", false},
    {"AUTOCONNECT", false},
    {"AUTOCONNECTTIMEOUT", true},
    {"ERR1001", false},
    {"CONNECTONLOAD", false},
    {"CONNERROR", false},
    {"K", true},
    {"PKILL", true},
    {"NODAEMON", false},
    {"PCHECK", false},
    {"C", false},
    {"P", true},
    {"PIDFILE", true},
    {"PING", false},
};

struct Spelled {
  const Option* Found = nullptr;
  bool HasValue = false;  // inside the argument
  std::string Value;
};

// Case and any '-' or '/' do not matter; the key ends at the end, or at a blank or '=' before a
// value.
Spelled SpellOne(const Option& option, const std::string& argument) {
  const std::string key = option.Key;
  std::size_t at = 0, matched = 0;
  const auto skip = [&] {
    while (at < argument.size() && (argument[at] == '-' || argument[at] == '/')) ++at;
  };
  for (skip(); at < argument.size() && matched < key.size(); ++at, ++matched, skip()) {
    if (std::toupper(static_cast<unsigned char>(argument[at])) != key[matched]) break;
  }
  if (matched < key.size()) return {};
  if (at == argument.size()) return {&option, false, {}};
  if ((argument[at] == ' ' || argument[at] == '=') && at + 1 < argument.size())
    return {&option, true, argument.substr(at + 1)};
  return {};
}

Spelled Spell(const std::string& argument) {
  for (const Option& option : kOptions)
    if (const Spelled spelled = SpellOne(option, argument); spelled.Found) return spelled;
  return {};
}

void Warn(std::vector<Fault>* faults, const char* rule, std::string text) {
  faults->push_back({Severity::Warning, rule, std::move(text)});
}

// A value that is an argument of its own is looked at as an option too. One that spells its own
// option does no harm: the first argument that does so counts.
void CheckSeparateValue(const Option& option, const std::string& value,
                        std::vector<Fault>* faults) {
  const std::string spelled = OptionSpelled(value);
  if (!spelled.empty() && spelled != option.Key)
    Warn(faults, "option-key",
         "the value '" + value + "' of -" + option.Key + " is taken for the option -" + spelled +
             " as well");
}

void CheckValue(const Option& option, const std::string& value, const Table& table,
                std::vector<Fault>* faults) {
  const std::string key = option.Key, name = '-' + key;
  if ((key == "S" || key == "DEFAULT") && !table.Find(value))
    Warn(faults, "default-unknown",
         "the table has no node '" + value + "' for " + name + ": the first node is the default");
  if (key == "M" && static_cast<int>(std::strtol(value.c_str(), nullptr, 10)) == 0)
    Warn(faults, "bad-exchange", "the value '" + value + "' of -M is no number: 20562 is used");
}

}  // namespace

std::string OptionSpelled(const std::string& argument) {
  const Spelled spelled = Spell(argument);
  return spelled.Found ? spelled.Found->Key : "";
}

std::optional<std::string> OptionValue(const std::vector<std::string>& arguments,
                                       const std::string& key) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const Spelled spelled = SpellOne({key.c_str(), true}, arguments[i]);
    if (!spelled.Found) continue;
    if (spelled.HasValue) return spelled.Value;
    return i + 1 < arguments.size() ? arguments[i + 1] : "";
  }
  return std::nullopt;
}

std::vector<Fault> CheckOptions(const std::vector<std::string>& arguments, const Table& table) {
  std::vector<Fault> faults;
  bool modes = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const Spelled spelled = Spell(arguments[i]);
    if (!spelled.Found) {
      Warn(&faults, "unknown-option", "the agent ignores '" + arguments[i] + "'");
      continue;
    }
    const std::string key = spelled.Found->Key;
    modes = modes || key == "A" || key == "AUTOCHANGE" || key == "G" || key == "AUTOCONNECT";
    if (!spelled.Found->TakesValue) continue;
    if (spelled.HasValue) {
      CheckValue(*spelled.Found, spelled.Value, table, &faults);
    } else if (i + 1 < arguments.size()) {
      CheckSeparateValue(*spelled.Found, arguments[++i], &faults);
      CheckValue(*spelled.Found, arguments[i], table, &faults);
    } else {
      Warn(&faults, "no-value", "there is no value behind " + arguments[i]);
    }
  }
  if (modes && table.Nodes().size() == 1)
    Warn(&faults, "one-node", "with one node the agent switches -AUTOCONNECT and -AUTOCHANGE off");
  return faults;
}

}  // namespace lumo::ctl
