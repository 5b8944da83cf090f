// Run by the build: prints the script that it reads, with what lumoctl's option parser knows.
#include <iostream>
#include <iterator>

#include "tools/lumoctl/options.h"

int main() {
  const std::string script{std::istreambuf_iterator<char>(std::cin), {}};
  std::cout << lumo::ctl::CompletionOf(script);
  return std::cout.flush() ? 0 : 1;
}
