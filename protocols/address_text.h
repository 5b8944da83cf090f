// The address part of a node table line: words between white space.
#pragma once
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>

inline bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Overwrites white space with NULs; returns what follows it.
inline char* BlankOut(char* text) {
  while (IsBlank(*text)) *text++ = '\0';
  return text;
}

// The next word, empty when there is none. The white space round it is overwritten with NULs and
// *rest moves to what follows.
inline char* NextWord(char** rest) {
  char* const word = BlankOut(*rest);
  char* end = word;
  while (*end != '\0' && !IsBlank(*end)) ++end;
  *rest = BlankOut(end);
  return word;
}

// The number at the start of a word, 0 when there is none; base 0 takes 0x and a leading 0 as
// marks. Numbers beyond 32 bits become the nearest that fits.
inline std::int32_t WordToNumber(const char* word, int base) {
  const long value = std::strtol(word, nullptr, base);
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

inline void UpperCase(char* text) {
  for (; *text != '\0'; ++text)
    *text = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
}
