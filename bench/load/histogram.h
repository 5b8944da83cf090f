// Times, counted in classes of less than one per cent width.
#pragma once
#include <cstdint>
#include <vector>

namespace bench {

class Histogram {
 public:
  Histogram();
  void Add(std::int64_t nanoseconds);
  void Clear();
  // The time that this part (0 to 1) of all does not exceed; 0 when there is none.
  std::int64_t Quantile(double part) const;
  std::int64_t Largest() const { return largest_; }
  std::uint64_t Count() const { return count_; }

 private:
  std::vector<std::uint64_t> classes_;
  std::uint64_t count_ = 0;
  std::int64_t largest_ = 0;
};

}  // namespace bench
