#include "tests/support/text.h"

#include <regex.h>

#include <array>
#include <sstream>
#include <stdexcept>

namespace test {

std::size_t Count(const std::string& text, const std::string& word) {
  std::size_t count = 0;
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
    ++count;
  return count;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> Match(const std::string& text, const std::string& expression) {
  regex_t compiled;
  if (regcomp(&compiled, ("^(" + expression + ")$").c_str(), REG_EXTENDED) != 0)
    throw std::runtime_error("not a regular expression: " + expression);
  std::array<regmatch_t, 10> groups{};
  std::vector<std::string> parts;
  if (regexec(&compiled, text.c_str(), groups.size(), groups.data(), 0) == 0) {
    for (std::size_t i = 1; i <= compiled.re_nsub && i < groups.size(); ++i) {
      const regmatch_t& group = groups[i];
      parts.push_back(group.rm_so < 0
                          ? std::string()
                          : text.substr(static_cast<std::size_t>(group.rm_so),
                                        static_cast<std::size_t>(group.rm_eo - group.rm_so)));
    }
  }
  regfree(&compiled);
  return parts;
}

}  // namespace test
