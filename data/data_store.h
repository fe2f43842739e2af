// The working data: fixed-width rows of doubles, factors already as level numbers.  Routines: DST_.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// Rows in memory, in chunks of about a megabyte so that growing copies nothing.
class DATA_STORE {
 public:
  explicit DATA_STORE(std::int64_t width = 0);
  std::int64_t width() const { return width_; }
  std::int64_t records() const { return records_; }
  std::span<const double> row(std::int64_t i) const
  {
    return {at(i), static_cast<std::size_t>(width_)};
  }  // from 0
  std::span<double> row(std::int64_t i)
  {
    return {const_cast<double*>(at(i)), static_cast<std::size_t>(width_)};
  }

 private:
  friend void DST_WRITE_ROW(ERROR_HANDLER&, DATA_STORE&, std::span<const double>);
  const double* at(std::int64_t i) const
  {
    const std::int64_t within = i & ((std::int64_t{1} << shift_) - 1);
    return chunks_[static_cast<std::size_t>(i >> shift_)].data() + within * width_;
  }
  std::int64_t width_ = 0;
  std::int64_t records_ = 0;
  int shift_ = 0;  // a chunk holds 2^shift rows
  std::vector<std::vector<double>> chunks_;
};

/// DST_WRITE_ROW: appends a row.
void DST_WRITE_ROW(ERROR_HANDLER& eh, DATA_STORE& store, std::span<const double> row);

}  // namespace tolvan
