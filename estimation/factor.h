// The factor C = L D L' in supernodes, its sweeps and the subset of C-inverse on its pattern.
// Routines: SYMBOLICABS2, K4MXXAIL, SMIFWD, SMIBCK, SMIREV, K4MXIJ.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "estimation/coefficients.h"

namespace tolvan {

/// Consecutive positions with one pattern below them, held as a dense panel of all its rows, column after
/// column.
struct SNODE {
  std::int32_t first = 0, last = 0;  // positions, last included
  std::int64_t rows = 0;             // rows of the panel: its own columns, then the update rows
  std::int64_t row_list = 0;         // where its row numbers start in FACTOR::row_list
  std::int64_t panel = 0;            // where its panel starts in FACTOR::panel
  std::int32_t parent = -1;          // supernode of the first update row
  bool contiguous = false;           // its row numbers follow each other without a gap

  std::int32_t width() const { return last - first + 1; }
};

/// A run of a node's rows that are columns of one node further up.
struct SBLOCK {
  std::int32_t source = 0, target = 0;
  std::int32_t begin = 0, end = 0;  // rows of the source's panel, counted from 0
};

/// The factor.  After K4MXXAIL a panel holds unit L below the diagonal; after SMIREV it holds C-inverse
/// there.
struct FACTOR {
  std::int64_t n = 0;
  std::int64_t dense = 0;
  std::vector<std::int32_t> order;     // inner equation at each position
  std::vector<std::int32_t> position;  // position of each inner equation
  std::vector<SNODE> nodes;            // in elimination order
  std::vector<std::int32_t> node_of;   // supernode of each position
  std::vector<std::int32_t> row_list;
  std::vector<double> panel;
  std::vector<double> reciprocal;  // 1/D; 0 for a singular equation
  std::int64_t entries = 0;        // of L, diagonal included, relaxation zeros included
  double flops = 0.0;              // sum over columns of (rows below)^2
  bool holds_inverse = false;

  // How nodes meet and how they are shared among threads.
  std::vector<SBLOCK> blocks;                // by source
  std::vector<std::int64_t> block_start;     // of each source
  std::vector<std::int64_t> incoming;        // blocks by target, in the order in which it takes them up
  std::vector<std::int64_t> incoming_start;  // of each target
  std::vector<std::int64_t> incoming_rest;   // of each target: behind the plain blocks of the subtrees, which come first
  struct TASK {
    std::int32_t begin, end;
    double work;  // in flops, roughly
  };
  std::vector<TASK> tasks;        // runs of nodes made of whole subtrees
  std::vector<std::int32_t> top;  // the nodes above them, rising
  std::int64_t panel_size = 0;    // of all panels; they are made by the first absorption

  FACTOR() = default;
  FACTOR(const FACTOR&) = delete;
  FACTOR& operator=(const FACTOR&) = delete;
};

/// What an absorption is told.
struct ABSORB_CONTROL {
  double t0 = 1e-8;               // tolerance: t(i) = max(|C(i,i)|, floor) t0
  double floor = 1.0;             // 0 makes the tolerance relative, free of the units of data and parameters
  bool default_tolerance = true;  // t0 stands at exactly 1e-8: a small pivot may tighten it tenfold, once
  std::span<const signed char> flags;  // by position, or empty; below 0 leaves the equation out as singular
  // By position, or empty: 1 for equations known not to be singular, such as effects of a positive definite variance matrix, whose
  // pivots are above zero however small: only what rounding has left nothing of counts as singular; 2 leaves an equation out.
  std::span<const std::uint8_t> definite;
  int threads = 1;
  CANCEL cancel;
};

/// What an absorption found.
struct ABSORBED {
  double log_determinant = 0.0;  // sum of ln|p| over accepted pivots
  std::int64_t singular = 0;
  std::int64_t negative = 0;  // accepted pivots below zero
  double t0 = 0.0;            // the tolerance at the end (it may have been tightened)
  bool tightened = false;
  bool cancelled = false;
  struct SmallPivot {
    std::int32_t position;
    double pivot, tolerance;
    bool accepted;
  };
  std::vector<SmallPivot> reported;  // pivots to report as "appears singular"
};

/// SYMBOLICABS2: finds tree, supernodes and panels of the factor for a pattern and an order, which it may
/// postorder. Complains when the machine cannot hold the factor.
void SYMBOLICABS2(ERROR_HANDLER& eh, const PATTERN& pattern, const std::vector<std::int32_t>& order,
                  FACTOR& factor);

/// K4MXXAIL: factorises C, given in the elimination order of the factor, and counts its singular equations.
void K4MXXAIL(ERROR_HANDLER& eh, const COEFFICIENTS& c, const ABSORB_CONTROL& control, FACTOR& factor,
              ABSORBED& absorbed);

/// SMIFWD: b becomes L^-1 b for columns in elimination order (n by columns, leading dimension n).
void SMIFWD(const FACTOR& factor, double* b, std::int64_t columns, int threads);
/// SMIBCK: b becomes L'^-1 D^-1 b; behind SMIFWD this solves C x = b, with 0 for singular equations.
void SMIBCK(const FACTOR& factor, double* b, std::int64_t columns, int threads);

/// Sparse columns in elimination order, one after the other.
struct SPARSE_COLUMNS {
  std::vector<std::int64_t> start{0};
  std::vector<std::int32_t> position;
  std::vector<double> value;

  std::int64_t count() const { return static_cast<std::int64_t>(start.size()) - 1; }
  void clear()
  {
    start.assign(1, 0);
    position.clear();
    value.clear();
  }
  /// Ends the column that was being put together.
  void close() { start.push_back(static_cast<std::int64_t>(position.size())); }
};

/// z'C^-1 z for sparse columns z, by forward sweeps that touch only the nodes on the paths from their elements to the root
/// (Gilbert & Peierls 1988).  Throws bad_alloc.
class SQUARE_SWEEPS {
 public:
  SQUARE_SWEEPS(const FACTOR& factor, int threads);
  /// Columns worth handing over at once.
  std::int64_t batch() const { return tile_ * static_cast<std::int64_t>(work_.size()); }
  void squares(const SPARSE_COLUMNS& z, std::vector<double>& out);

 private:
  struct WORK {
    std::vector<double> block;        // n by columns of a tile, row by row; zero between sweeps
    std::vector<double> gathered;
    std::vector<std::uint8_t> marked; // by node; 0 between sweeps
    std::vector<std::int32_t> path;   // the nodes to go through
  };
  void sweep(const SPARSE_COLUMNS& z, std::int64_t from, std::int64_t to, WORK& work, double* out) const;
  const FACTOR& factor_;
  std::int64_t tile_;
  std::vector<WORK> work_;  // one a thread
};

/// SMIREV: replaces L by the elements of C-inverse on its pattern (Takahashi, Fagan & Chen 1973), zero for
/// singular ones. Stopped by `cancel` it leaves holds_inverse false, and a factor of no use.
void SMIREV(ERROR_HANDLER& eh, FACTOR& factor, int threads, CANCEL cancel);
/// K4MXIJ: the element of C-inverse at two positions, which must lie on the pattern; 0 off the pattern.
double K4MXIJ(const FACTOR& factor, std::int64_t i, std::int64_t j);
/// The elements of C-inverse on the pattern of C, aligned with c.value; one search a column run, none an
/// element.
void gather_inverse(const FACTOR& factor, const COEFFICIENTS& c, std::vector<double>& inverse, int threads);

}  // namespace tolvan
