// Looking at texts.
#pragma once
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace test {

// The bytes of a value as it lies in memory.
template <class T>
std::string Bytes(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// The value whose bytes stand there.
template <class T>
T ValueAt(const std::string& bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}
template <class T>
void Overwrite(std::string* bytes, std::size_t at, T value) {
  std::memcpy(bytes->data() + at, &value, sizeof value);
}

// How often a word occurs.
std::size_t Count(const std::string& text, const std::string& word);
std::vector<std::string> Lines(const std::string& text);

// The whole text and the groups when all of it matches an extended regular expression, else empty.
// (The standard library's <regex> does not compile without warnings under the sanitizers.)
std::vector<std::string> Match(const std::string& text, const std::string& expression);
inline bool Matches(const std::string& text, const std::string& expression) {
  return !Match(text, expression).empty();
}

}  // namespace test
