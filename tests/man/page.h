// A manual page as the tests need it: the tables and the literal displays of its sections.
#pragma once
#include <string>
#include <vector>

namespace test {

using Cells = std::vector<std::string>;

class Page {
 public:
  explicit Page(const std::string& name);  // such as "nodetab.5"

  // The rows of the tables of a section or subsection, headings left out, escapes resolved.
  std::vector<Cells> Rows(const std::string& title) const;
  std::vector<std::string> Literals(const std::string& title) const;

 private:
  std::vector<std::string> Section(const std::string& title) const;
  std::vector<std::string> lines_;
};

}  // namespace test
