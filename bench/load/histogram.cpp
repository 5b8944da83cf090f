#include "bench/load/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace bench {
namespace {

// A time is kept with its eight leading bits: the first of them names a block of classes.
constexpr int kBits = 7;
constexpr std::size_t kBlock = std::size_t{1} << kBits;
constexpr std::size_t kClasses = kBlock * static_cast<std::size_t>(64 - kBits);

std::size_t ClassOf(std::uint64_t time) {
  if (time < kBlock) return static_cast<std::size_t>(time);
  const int shift = 63 - std::countl_zero(time) - kBits;
  return kBlock * static_cast<std::size_t>(shift) + static_cast<std::size_t>(time >> shift);
}

// The largest time of a class.
std::uint64_t EndOf(std::size_t index) {
  if (index < kBlock) return index;
  const std::size_t shift = index / kBlock - 1;
  return (std::uint64_t{index % kBlock + kBlock + 1} << shift) - 1;
}

}  // namespace

Histogram::Histogram() : classes_(kClasses) {}

void Histogram::Add(std::int64_t nanoseconds) {
  const std::uint64_t time = static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0));
  ++classes_[ClassOf(time)];
  ++count_;
  largest_ = std::max(largest_, nanoseconds);
}

void Histogram::Clear() {
  std::fill(classes_.begin(), classes_.end(), 0);
  count_ = 0;
  largest_ = 0;
}

std::int64_t Histogram::Quantile(double part) const {
  std::uint64_t rest = static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(count_)));
  for (std::size_t i = 0; rest > 0 && i < classes_.size(); ++i) {
    if (classes_[i] >= rest) return std::min(static_cast<std::int64_t>(EndOf(i)), largest_);
    rest -= classes_[i];
  }
  return 0;
}

}  // namespace bench
