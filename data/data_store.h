// The working data: fixed-width rows of doubles, factors already as level numbers.  Routines: DST_.
//
// Rows stand in blocks of about a megabyte.  The first blocks are held in memory, the others in a scratch
// file once the rows have used up the memory that they may use.  Either way rows are read in order at the
// speed of a copy; out of order, rows of the scratch file cost a block each time.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/scratch_file.h"

namespace tolvan {

/// Where rows go that find no room in memory.
enum class ScratchPlace { temporary_folder, nowhere, current_folder };  // noscratch 0, 1, 2

struct STORE_RULES {
  ScratchPlace scratch = ScratchPlace::temporary_folder;
  std::int64_t most_memory = -1;  // bytes of rows in memory; -1: half of what the machine has left
};

class DATA_STORE {
 public:
  explicit DATA_STORE(std::int64_t width = 0, const STORE_RULES& rules = {});
  std::int64_t width() const { return width_; }
  std::int64_t records() const { return records_; }
  const STORE_RULES& rules() const { return rules_; }
  bool on_scratch() const { return scratch_.is_open(); }
  /// The last records, which are not in the data: plots that complete a grid.
  std::int64_t filled() const { return filled_; }
  void set_filled(std::int64_t records) { filled_ = records; }
  /// A row, from 0.  The view holds until another row is asked for.  A row that can't be read back from the
  /// scratch file comes as missing values; DST_CHECK tells so after the pass.
  std::span<const double> row(std::int64_t i) const
  {
    const std::int64_t block = i >> shift_;
    const std::int64_t within = (i & ((std::int64_t{1} << shift_) - 1)) * width_;
    return {block_start(block) + within, static_cast<std::size_t>(width_)};
  }

  /// Blocks of rows, from 0, for passes that change them: DST_GET_BLOCK, then DST_PUT_BLOCK.
  std::int64_t blocks() const { return (records_ + (std::int64_t{1} << shift_) - 1) >> shift_; }

 private:
  friend void DST_WRITE_ROW(ERROR_HANDLER&, DATA_STORE&, std::span<const double>);
  friend bool DST_READ_ROW(ERROR_HANDLER&, const DATA_STORE&, std::int64_t, std::span<const double>&);
  friend std::span<double> DST_GET_BLOCK(ERROR_HANDLER&, DATA_STORE&, std::int64_t);
  friend void DST_PUT_BLOCK(ERROR_HANDLER&, DATA_STORE&, std::int64_t);
  friend void DST_CHECK(ERROR_HANDLER&, const DATA_STORE&);
  friend struct StoreGrowth;

  std::int64_t held() const { return static_cast<std::int64_t>(blocks_.size()); }
  std::int64_t block_bytes() const { return (width_ << shift_) * static_cast<std::int64_t>(sizeof(double)); }
  const double* block_start(std::int64_t block) const
  {
    if (block < held()) return blocks_[static_cast<std::size_t>(block)].data();
    if (block == tail_block_) return tail_.data();
    return block == window_block_ ? window_.data() : load(block);
  }
  const double* load(std::int64_t block) const;

  std::int64_t width_ = 0;
  std::int64_t records_ = 0;
  std::int64_t filled_ = 0;
  int shift_ = 0;  // a block holds 2^shift rows
  STORE_RULES rules_;
  std::vector<std::vector<double>> blocks_;  // those in memory
  // The others: all but the last in the file, where block b stands at place b - held().
  mutable ScratchFile scratch_;
  std::vector<double> tail_;  // the last block
  std::int64_t tail_block_ = -1;
  mutable std::vector<double> window_;  // the block read last
  mutable std::int64_t window_block_ = -1;
  mutable bool failed_ = false;
};

/// DST_WRITE_ROW: appends a row.
void DST_WRITE_ROW(ERROR_HANDLER& eh, DATA_STORE& store, std::span<const double> row);
/// DST_READ_ROW: a row, from 0, whose view holds until another row is asked for; false with a message if it
/// can't be read back.
bool DST_READ_ROW(ERROR_HANDLER& eh, const DATA_STORE& store, std::int64_t record,
                  std::span<const double>& row);
/// DST_GET_BLOCK: the rows of a block one after another, to be changed and put back.  Empty after a failure.
std::span<double> DST_GET_BLOCK(ERROR_HANDLER& eh, DATA_STORE& store, std::int64_t block);
/// DST_PUT_BLOCK: puts the block back that was got last.
void DST_PUT_BLOCK(ERROR_HANDLER& eh, DATA_STORE& store, std::int64_t block);
/// DST_CHECK: complains if any row could not be read back.
void DST_CHECK(ERROR_HANDLER& eh, const DATA_STORE& store);

}  // namespace tolvan
