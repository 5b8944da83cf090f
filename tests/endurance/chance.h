// Everything that is left to chance, from one seed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <random>

namespace endurance {

class Chance {
 public:
  explicit Chance(std::uint64_t seed) : engine_(seed) {}
  // Below the limit, which is at least 1.
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(engine_() % limit); }
  int Between(int low, int high) {
    return low + static_cast<int>(Below(static_cast<std::size_t>(high - low + 1)));
  }
  bool Percent(int percent) { return Below(100) < static_cast<std::size_t>(percent); }
  bool PerMille(int perMille) { return Below(1000) < static_cast<std::size_t>(perMille); }
  // At least 1, on average the mean.
  int Around(int mean) { return 1 + Between(0, 2 * (mean - 1)); }

 private:
  std::mt19937_64 engine_;
};

// A number that looks like chance, always the same for the same numbers.
inline std::uint64_t Mix(std::uint64_t a, std::uint64_t b) {
  std::uint64_t x = a * 0x9E3779B97F4A7C15U + b;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

}  // namespace endurance
