// A table of markers while it is read, line by line: a byte a value for as long as that does.  Routine: L_FINISH_TABLE.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

struct MARKER_DATA;

/// Lines of the same width.  Values that no byte stands for turn the whole table into numbers.
class MARKER_TABLE {
 public:
  static constexpr std::int8_t missing = std::numeric_limits<std::int8_t>::min();

  explicit MARKER_TABLE(std::int64_t width = 0) : width_(width) {}
  std::int64_t width() const { return width_; }
  std::int64_t lines() const { return lines_; }
  bool in_bytes() const { return in_bytes_; }
  std::vector<std::int8_t>& bytes() { return bytes_; }
  std::vector<double>& numbers() { return numbers_; }

  /// Adds lines of missing values.
  void add_lines(std::int64_t count)
  {
    lines_ += count;
    const auto size = static_cast<std::size_t>(lines_ * width_);
    if (in_bytes_) {
      bytes_.resize(size, missing);
    } else {
      numbers_.resize(size, std::numeric_limits<double>::quiet_NaN());
    }
  }
  /// Whether a byte stands for a value: a count of an allele or one of the usual marks of a missing one.
  static bool fits(double x) { return x == 0.0 || x == 1.0 || x == 2.0 || x == -1.0 || x == 9.0; }
  void set(std::int64_t line, std::int64_t column, double x)
  {
    const auto at = static_cast<std::size_t>(line * width_ + column);
    if (in_bytes_ && fits(x)) {
      bytes_[at] = static_cast<std::int8_t>(x);
      return;
    }
    if (in_bytes_) widen();
    numbers_[at] = x;
  }
  /// The bytes of a line; null where the table is in numbers.
  std::int8_t* line_bytes(std::int64_t line) { return in_bytes_ ? bytes_.data() + line * width_ : nullptr; }

  /// Whether the values are counts of an allele as far as bytes can tell: not where they are -1, 0 and 1.
  bool holds_counts() const
  {
    if (!in_bytes_) return false;
    bool minus = false;
    for (const std::int8_t x : bytes_) {
      if (x == 2) return true;
      minus = minus || x == -1;
    }
    return !minus;
  }
  /// The same for numbers: within 0 to 2, -1 and 9 aside, and not -1 to 1.
  bool may_hold_counts() const
  {
    if (in_bytes_) return holds_counts();
    double low = 0.0, high = 0.0;
    for (const double x : numbers_) {
      low = std::min(low, x);
      high = std::max(high, x);
    }
    return low >= 0.0 || high > 1.0;
  }
  void widen()
  {
    numbers_.resize(bytes_.size());
    std::transform(bytes_.begin(), bytes_.end(), numbers_.begin(), [](std::int8_t x) {
      return x == missing ? std::numeric_limits<double>::quiet_NaN() : static_cast<double>(x);
    });
    std::vector<std::int8_t>().swap(bytes_);
    in_bytes_ = false;
  }

 private:
  std::int64_t width_;
  std::int64_t lines_ = 0;
  bool in_bytes_ = true;
  std::vector<std::int8_t> bytes_;
  std::vector<double> numbers_;
};

/// L_FINISH_TABLE: decides what the values of a table are, and puts them in their form.
///   by_marker         its lines are markers, not genotypes
///   declared_counts   its kind says that they are counts of an allele
void L_FINISH_TABLE(ERROR_HANDLER& eh, MARKER_TABLE& table, bool by_marker, bool declared_counts, MARKER_DATA& out);

}  // namespace tolvan
