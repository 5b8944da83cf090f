#pragma once
// What mutants.py writes into the files that it changes: all changes at once, of which one is
// active. Which one stands in front in the file that LUMO_MUTANTS names; behind it is a byte for
// each, set when its place is come to.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

constexpr std::size_t kLumoMutantsSize = 1 << 16;

inline unsigned char* LumoMutantsMap() {
  const char* const path = std::getenv("LUMO_MUTANTS");
  const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0) return nullptr;
  void* const map = mmap(nullptr, kLumoMutantsSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return map == MAP_FAILED ? nullptr : static_cast<unsigned char*>(map);
}

inline unsigned char* const lumoMutants = LumoMutantsMap();

inline bool LumoMutant(int number) {
  if (!lumoMutants) return false;
  lumoMutants[sizeof number + static_cast<std::size_t>(number)] = 1;
  return std::memcmp(lumoMutants, &number, sizeof number) == 0;
}

// `a < LumoLess{7} < b` is `a < b`, or `a <= b` when the seventh is active: both operands keep
// their extent, whatever stands around them.
#define LUMO_OPERATOR(name, one, other)                                           \
  struct name {                                                                   \
    int Number;                                                                   \
  };                                                                              \
  template <class T>                                                              \
  struct name##Half {                                                             \
    T Left;                                                                       \
    int Number;                                                                   \
  };                                                                              \
  template <class T>                                                              \
  auto operator one(T left, name mutant) {                                        \
    return name##Half<T>{left, mutant.Number};                                    \
  }                                                                               \
  template <class T, class U>                                                     \
  auto operator one(name##Half<T> half, U right) {                                \
    return LumoMutant(half.Number) ? half.Left other right : half.Left one right; \
  }
LUMO_OPERATOR(LumoLess, <, <=)
LUMO_OPERATOR(LumoLessOrEqual, <=, <)
LUMO_OPERATOR(LumoMore, >, >=)
LUMO_OPERATOR(LumoMoreOrEqual, >=, >)
LUMO_OPERATOR(LumoEqual, ==, !=)
LUMO_OPERATOR(LumoUnequal, !=, ==)
LUMO_OPERATOR(LumoPlus, +, -)
LUMO_OPERATOR(LumoMinus, -, +)
