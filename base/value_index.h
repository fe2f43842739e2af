// The place of a number, or of a pair of numbers, among the distinct ones: found by hashing.
#pragma once

#include <cstdint>
#include <vector>

namespace tolvan {

/// Distinct pairs (x, y), y being 0 throughout where single numbers are meant.  Values are added in any order; after sort()
/// the places count from 1 in rising order, x slow.  -0 is 0; no value may be NaN.
class VALUE_INDEX {
 public:
  /// Adds a pair unless it is there.
  void add(double x, double y = 0.0);
  /// Puts the pairs in rising order.  Nothing may be added afterwards.
  void sort();
  /// The place of a pair from 1, in the order of adding as long as sort() was not called; 0 for one that was never added.
  std::int64_t find(double x, double y = 0.0) const;

  std::int64_t size() const { return static_cast<std::int64_t>(x_.size()); }
  double x(std::int64_t place) const { return x_[static_cast<std::size_t>(place - 1)]; }
  double y(std::int64_t place) const { return y_.empty() ? 0.0 : y_[static_cast<std::size_t>(place - 1)]; }
  const std::vector<double>& values() const { return x_; }
  void clear() { *this = {}; }

 private:
  std::size_t slot_of(double x, double y) const;
  void rehash(std::size_t slots);
  bool holds(std::size_t k, double x, double y) const { return x_[k] == x && (y_.empty() ? 0.0 : y_[k]) == y; }
  std::vector<double> x_;           // as added, after sort() rising
  std::vector<double> y_;           // the same; empty as long as all are 0
  std::vector<std::int32_t> slot_;  // open addressing: place of the pair, 0 for none; a power of two of them
};

}  // namespace tolvan
