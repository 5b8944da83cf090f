#include "tests/man/page.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/agent.h"
#include "tests/support/text.h"

namespace test {
namespace {

std::string Plain(std::string text) {
  static const std::pair<std::string, std::string> kEscapes[] = {
      {"\\-", "-"}, {"\\&", ""}, {"\\(dq", "\""}, {"\\(aq", "'"}};
  for (const auto& [escape, replacement] : kEscapes) {
    for (std::size_t at = 0; (at = text.find(escape, at)) != std::string::npos;)
      text.replace(at, escape.size(), replacement);
  }
  return text;
}

Cells Split(std::string row) {
  constexpr std::size_t kStep = 3;  // the blank behind a mark may be the one before the next
  Cells cells;
  row = ' ' + row + " Ta ";
  for (std::size_t at = 0, end; (end = row.find(" Ta ", at)) != std::string::npos;) {
    const std::size_t text = std::min(row.find_first_not_of(' ', at), end);
    cells.push_back(Plain(row.substr(text, end - text)));
    at = end + kStep;
  }
  return cells;
}

}  // namespace

Page::Page(const std::string& name) : lines_(Lines(ReadFile(LUMO_MAN_PATH "/" + name))) {
  EXPECT_FALSE(lines_.empty()) << name;
}

std::vector<std::string> Page::Section(const std::string& title) const {
  const auto isTitle = [&](const std::string& line) {
    return line == ".Sh " + title || line == ".Ss " + title;
  };
  const auto begin = std::find_if(lines_.begin(), lines_.end(), isTitle);
  if (begin == lines_.end()) {
    ADD_FAILURE() << "no section " << title;
    return {};
  }
  const bool isSection = begin->starts_with(".Sh");
  const auto end = std::find_if(begin + 1, lines_.end(), [&](const std::string& line) {
    return line.starts_with(".Sh ") || (!isSection && line.starts_with(".Ss "));
  });
  return {begin + 1, end};
}

std::vector<Cells> Page::Rows(const std::string& title) const {
  std::vector<Cells> rows;
  for (const std::string& line : Section(title)) {
    if (!line.starts_with(".It ") || line.starts_with(".It Sy ")) continue;
    if (line.find(" Ta") != std::string::npos) rows.push_back(Split(line.substr(4)));
  }
  return rows;
}

std::vector<std::string> Page::Literals(const std::string& title) const {
  std::vector<std::string> literals;
  bool inside = false;
  for (const std::string& line : Section(title)) {
    if (line == ".Ed") inside = false;
    if (inside) literals.back() += Plain(line) + '\n';
    if (line.starts_with(".Bd -literal")) {
      inside = true;
      literals.emplace_back();
    }
  }
  return literals;
}

}  // namespace test
