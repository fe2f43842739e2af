// The work inside the nodes of the factor.  Routines: DSMINODEABS, NOTRANS.
//
// All of it runs inside parallel regions: nothing here knows a handler, allocates or fails.  Which arithmetic
// is done, and in which order, depends on the shape of a node alone, never on the number of threads.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "estimation/factor.h"
#include "estimation/share.h"

namespace tolvan {

inline constexpr std::int32_t widest_panel = 176;  // columns of a node
inline constexpr std::int64_t block_columns =
    80;                                         // columns factorised before the rest of the node is updated
inline constexpr std::int64_t solve_columns = 64;     // solved at a time in the rows below a node's square
inline constexpr std::int64_t triangle_columns = 64;  // of a square whose lower triangle alone is wanted, formed at a time
// Rows of a large node that one thread works on at a time, and how many make it large: more for the factor, where
// threads need not wait for each other.
inline constexpr std::int64_t tile_rows = 512, untiled_rows = 640;
inline constexpr std::int64_t inverse_untiled_rows = 384;
inline std::int64_t inverse_tile_rows(std::int64_t below) { return std::max<std::int64_t>(512, below / 8); }

// Rows by width by rows above which threads share a node: some 100 microseconds of work.
inline constexpr double fork_above = 4e6;

/// The threads that are worth waking for a factor, and for all else of an evaluation: below a few hundredths of a second they cost
/// more than they do, much more where other programs run beside.
inline int useful_threads(const FACTOR& factor, int threads)
{
  return factor.flops < 1e8 ? 1 : std::max(threads, 1);
}

/// What one thread works with; made once for an absorption, an inversion or a sweep.
struct NODE_WORK {
  std::vector<std::int32_t> map;     // place of each position in the rows of the node `mapped`
  std::int32_t mapped = -1;
  std::vector<std::int32_t> places;  // places of a run of rows
  std::vector<double> product;       // rows of a tile by columns of a node
  std::vector<double> scaled;        // columns of a node squared
  std::vector<double> line;          // columns of a node
};
bool reserve_work(ERROR_HANDLER& eh, const FACTOR& factor, int threads, std::vector<NODE_WORK>& work);

/// Where positions stand among the rows of one node.
struct ROW_PLACES {
  const std::int32_t* map = nullptr;  // null: rows follow each other from `first`
  std::int32_t first = 0;
  std::int64_t operator()(std::int32_t row) const { return map ? map[row] : row - first; }
};
/// Fills the map with the rows of a node unless they are contiguous, or in it already.
ROW_PLACES place_rows(const FACTOR& factor, std::int32_t s, NODE_WORK& work);

/// Which pivots are accepted.
struct PIVOT_RULE {
  const double* tolerance = nullptr;   // by position
  const signed char* flags = nullptr;  // by position, or null
  const std::uint8_t* definite = nullptr;  // by position, or null
  double t0 = 1e-8;
  bool may_tighten = false;        // one small pivot may still be accepted and tighten t0
  bool in_order = true;            // nodes are done one after the other; otherwise no pivot is accepted so
  std::uint8_t* report = nullptr;  // by position: 1 small and singular, 2 small and accepted
  std::atomic<bool> contested{false};  // out of order, a pivot came that may have been accepted
  std::atomic<bool> not_finite{false};
};

/// DSMINODEABS: factorises the square on the diagonal of a node's panel, all updates from below being done.
/// Leaves unit L below the diagonal, D on it, the pivot itself where it is singular; 1/D, or 0, goes to
/// `reciprocal`.
void DSMINODEABS(const SNODE& node, const std::int32_t* rows, double* panel, PIVOT_RULE& rule,
                 double* reciprocal, NODE_WORK& work);
/// NOTRANS: forms L in the rows from `begin` to `end` below the square of a node.
void NOTRANS(const SNODE& node, double* panel, const double* reciprocal, std::int64_t begin,
             std::int64_t end);

/// Subtracts what a block takes from its target, for the source's rows that stand in the rows `begin` to `end` of the target:
/// without BLAS, for short and narrow blocks.
void update_plain(const FACTOR& factor, const SBLOCK& block, const ROW_PLACES& places, double* target,
                  std::int64_t begin, std::int64_t end);
/// L D of the columns that a block meets, into work.scaled: what update_blocked multiplies by.
void scale_columns(const FACTOR& factor, const SBLOCK& block, NODE_WORK& work);
/// The same as update_plain through DGEMM, behind scale_columns.
void update_blocked(const FACTOR& factor, const SBLOCK& block, const ROW_PLACES& places, double* target,
                    std::int64_t begin, std::int64_t end, NODE_WORK& work);
/// Whether a block is done without BLAS.
inline bool is_plain(const FACTOR& factor, const SBLOCK& block)
{
  const SNODE& source = factor.nodes[block.source];
  const std::int64_t width = source.width();
  return width <= 2 || width * (block.end - block.begin) * (source.rows - block.begin) <= 4096;
}

/// Asks for a user's wish to stop, on the thread that made it and not more than once in 100 ms.
class WATCH {
 public:
  explicit WATCH(CANCEL cancel) : cancel_(cancel), last_(clock::now()) {}
  /// True once the work is to stop; any thread may ask.
  bool stop()
  {
    if (stopped_.load(std::memory_order_relaxed)) return true;
    if (cancel_.asked == nullptr || omp_get_thread_num() != 0) return false;
    const auto now = clock::now();
    if (now - last_ < std::chrono::milliseconds(100)) return false;
    last_ = now;
    if (cancel_.asked(cancel_.data)) stopped_ = true;
    return stopped_;
  }

 private:
  using clock = std::chrono::steady_clock;
  CANCEL cancel_;
  clock::time_point last_;
  std::atomic<bool> stopped_{false};
};

}  // namespace tolvan
