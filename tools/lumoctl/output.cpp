#include "tools/lumoctl/output.h"

#include <algorithm>
#include <iostream>

namespace lumo::ctl {
namespace {

const char* CodeOf(Style style) {
  switch (style) {
    case Style::Plain:
      break;
    case Style::Strong:
      return "\033[1m";
    case Style::Good:
      return "\033[32m";
    case Style::Bad:
      return "\033[31m";
    case Style::Doubtful:
      return "\033[33m";
    case Style::Faint:
      return "\033[2m";
  }
  return "";
}

}  // namespace

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
  return text;
}

std::string Painted(const Options& options, Style style, const std::string& text) {
  if (!options.Color || style == Style::Plain) return text;
  return CodeOf(style) + text + "\033[0m";
}

std::string TextTable::Text(const Options& options) const {
  std::vector<std::size_t> widths;
  for (const std::string& head : heads_) widths.push_back(head.size());
  for (const auto& row : rows_)
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].Text.size());
  std::string text;
  const auto add = [&](const std::vector<Cell>& row) {
    std::string line;
    std::size_t owed = 0;  // blanks, due when something follows
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (!row[i].Text.empty()) {
        line += std::string(owed, ' ') + Painted(options, row[i].Look, Printable(row[i].Text));
        owed = 0;
      }
      owed += widths[i] - row[i].Text.size() + 2;
    }
    text += line + '\n';
  };
  std::vector<Cell> heads;
  for (const std::string& head : heads_) heads.emplace_back(head, Style::Faint);
  add(heads);
  for (const auto& row : rows_) add(row);
  return text;
}

std::string JsonText(const Json& value) {
  return value.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

void Show(const Options& options, const Json& value, const std::string& text) {
  std::cout << (options.Json ? JsonText(value) : text) << std::flush;
}

}  // namespace lumo::ctl
