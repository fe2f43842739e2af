// SMIFWD and SMIBCK, the sweeps of right-hand sides through the factor, and those of sparse ones.
//
// A few right-hand sides go through together, held row by row, so that what a node gathers and scatters lies together.  Many of
// them are shared out in such tiles; a single tile is swept by all threads, in the subtrees and on the large nodes above them.
// How sums are cut depends on the factor and the number of columns alone.
#include <algorithm>

#include "base/lapack.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

constexpr int64_t tile_columns = 32;    // right-hand sides that go through together
constexpr int64_t rows_at_once = 512;   // of a large node above the subtrees, for one thread
constexpr int64_t sums_at_once = 40;    // columns of such a node
constexpr double shared_above = 2e5;    // multiplications in a node that are worth sharing
constexpr int64_t transposed_rows = 64; // at a time
constexpr int lanes = 4;                // buffers in which the subtrees leave what belongs further up

constexpr int64_t narrow_square = 24;   // columns of a node whose square is solved without BLAS

// A node this narrow, or a lone right-hand side on a small one, is done without BLAS.
bool is_plain(const SNODE& node, int64_t columns)
{
  return node.width() <= 2 || node.width() * columns * node.rows <= 2048;
}

// x -= f y, vectors of the columns.
void subtract(int64_t columns, double f, const double* y, double* x)
{
#pragma omp simd
  for (int64_t c = 0; c < columns; ++c) x[c] -= f * y[c];
}

// Rows of right-hand sides by equations.  What a subtree leaves for rows behind `last` goes to a buffer of its own.
struct SIDES {
  double* x;  // n by columns, row by row
  int64_t columns;
  int64_t last;                 // position
  double* outside = nullptr;    // rows behind `last`, in their order above the subtrees, by columns
  const int32_t* place = nullptr;

  double* row(int32_t position) const
  {
    return position <= last ? x + position * columns : outside + static_cast<int64_t>(place[position]) * columns;
  }
};

// The square on the diagonal: x_J = L_JJ^-1 x_J.
void forward_square(const FACTOR& factor, const SNODE& node, const SIDES& b)
{
  const double* l = factor.panel.data() + node.panel;
  const int64_t width = node.width();
  double* top = b.x + node.first * b.columns;
  if (b.columns > 1 && width > narrow_square) {
    dtrsm('R', 'L', 'T', 'U', b.columns, width, 1.0, l, node.rows, top, b.columns);
    return;
  }
  for (int64_t k = 0; k + 1 < width; ++k) {
    const double* lk = l + k * node.rows;
    for (int64_t r = k + 1; r < width; ++r) subtract(b.columns, lk[r], top + k * b.columns, top + r * b.columns);
  }
}

// The rows begin .. end - 1 below the square: x_R -= L_RJ x_J.
void forward_rows(const FACTOR& factor, const SNODE& node, const SIDES& b, int64_t begin, int64_t end,
                  std::vector<double>& gathered)
{
  const int64_t ld = node.rows, width = node.width(), rows = end - begin;
  const int32_t* row = factor.row_list.data() + node.row_list;
  const double* l = factor.panel.data() + node.panel;
  const double* top = b.x + node.first * b.columns;
  if (rows == 0) return;
  if (b.columns == 1 && is_plain(node, 1)) {
    for (int64_t k = 0; k < width; ++k) {
      const double* lk = l + k * ld;
      for (int64_t r = begin; r < end; ++r) *b.row(row[r]) -= lk[r] * top[k];
    }
    return;
  }
  if (is_plain(node, b.columns)) {
    for (int64_t r = begin; r < end; ++r) {
      double* x = b.row(row[r]);
      for (int64_t k = 0; k < width; ++k) subtract(b.columns, l[r + k * ld], top + k * b.columns, x);
    }
    return;
  }
  double* g = gathered.data();
  if (b.columns == 1) {
    dgemv('N', rows, width, 1.0, l + begin, ld, top, 1, 0.0, g, 1);
  } else {
    dgemm('N', 'T', b.columns, rows, width, 1.0, top, b.columns, l + begin, ld, 0.0, g, b.columns);
  }
  for (int64_t r = 0; r < rows; ++r) subtract(b.columns, 1.0, g + r * b.columns, b.row(row[begin + r]));
}

void forward(const FACTOR& factor, const SNODE& node, const SIDES& b, std::vector<double>& gathered)
{
  forward_square(factor, node, b);
  forward_rows(factor, node, b, node.width(), node.rows, gathered);
}

// x_J = L_JJ'^-1 (D_J^-1 x_J - L_RJ' x_R), the columns of the product shared among threads on a large node.
void backward(const FACTOR& factor, const SNODE& node, const SIDES& b, int threads, std::vector<double>& gathered)
{
  const int64_t ld = node.rows, width = node.width(), below = ld - width, columns = b.columns;
  const int32_t* row = factor.row_list.data() + node.row_list;
  const double* l = factor.panel.data() + node.panel;
  const double* reciprocal = factor.reciprocal.data() + node.first;
  double* top = b.x + node.first * columns;
  for (int64_t k = 0; k < width; ++k) {
    for (int64_t c = 0; c < columns; ++c) top[c + k * columns] *= reciprocal[k];
  }
  if (columns == 1 && is_plain(node, 1)) {
    for (int64_t k = width - 1; k >= 0; --k) {
      const double* lk = l + k * ld;
      double sum = top[k];
      for (int64_t r = k + 1; r < ld; ++r) sum -= lk[r] * b.x[row[r]];
      top[k] = sum;
    }
    return;
  }
  if (is_plain(node, columns)) {
    for (int64_t k = width - 1; k >= 0; --k) {
      const double* lk = l + k * ld;
      for (int64_t r = k + 1; r < ld; ++r) subtract(columns, lk[r], b.row(row[r]), top + k * columns);
    }
    return;
  }
  if (below > 0) {
    double* g = gathered.data();
    for (int64_t r = 0; r < below; ++r) std::copy_n(b.row(row[width + r]), columns, g + r * columns);
    const bool large = static_cast<double>(below) * width * columns > shared_above;
    const int64_t part = large ? sums_at_once : width;
    share(large ? threads : 1, (width + part - 1) / part, [&](int64_t k, int) {
      const int64_t from = k * part, count = std::min(part, width - from);
      const double* lk = l + width + from * ld;
      if (columns == 1) {
        dgemv('T', below, count, -1.0, lk, ld, g, 1, 1.0, top + from, 1);
      } else {
        dgemm('N', 'N', columns, count, below, -1.0, g, columns, lk, ld, 1.0, top + from * columns, columns);
      }
    });
  }
  if (columns > 1 && width > narrow_square) {
    dtrsm('R', 'L', 'N', 'U', columns, width, 1.0, l, ld, top, columns);
    return;
  }
  for (int64_t k = width - 1; k >= 0; --k) {
    const double* lk = l + k * ld;
    for (int64_t r = k + 1; r < width; ++r) subtract(columns, lk[r], top + r * columns, top + k * columns);
  }
}

int64_t longest_node(const FACTOR& factor)
{
  int64_t longest = 0;
  for (const SNODE& node : factor.nodes) longest = std::max(longest, node.rows);
  return longest;
}

// Columns of b, n by count, to rows, and back.
void to_rows(const double* b, int64_t n, int64_t count, double* x)
{
  for (int64_t from = 0; from < n; from += transposed_rows) {
    const int64_t to = std::min(n, from + transposed_rows);
    for (int64_t c = 0; c < count; ++c) {
      for (int64_t p = from; p < to; ++p) x[p * count + c] = b[p + c * n];
    }
  }
}
void to_columns(const double* x, int64_t n, int64_t count, double* b)
{
  for (int64_t from = 0; from < n; from += transposed_rows) {
    const int64_t to = std::min(n, from + transposed_rows);
    for (int64_t c = 0; c < count; ++c) {
      for (int64_t p = from; p < to; ++p) b[p + c * n] = x[p * count + c];
    }
  }
}

using BUFFERS = std::vector<std::vector<double>>;  // one a thread

// One tile forward by all threads.
void forward_together(const FACTOR& factor, double* x, int64_t columns, int threads, BUFFERS& gathered)
{
  SIDES b{x, columns, factor.n - 1};
  if (factor.tasks.size() > 1) {
    std::vector<int32_t> place(static_cast<std::size_t>(factor.n), 0);
    int32_t above = 0;
    for (const int32_t s : factor.top) {
      for (int32_t p = factor.nodes[s].first; p <= factor.nodes[s].last; ++p) place[p] = above++;
    }
    std::vector<std::vector<std::size_t>> tasks_of(lanes);
    double work[lanes] = {};
    for (std::size_t k = 0; k < factor.tasks.size(); ++k) {
      const auto lane = std::min_element(work, work + lanes) - work;
      work[lane] += factor.tasks[k].work;
      tasks_of[static_cast<std::size_t>(lane)].push_back(k);
    }
    std::vector<double> outside(static_cast<std::size_t>(lanes * above * columns), 0.0);
    share(threads, lanes, [&](int64_t lane, int t) {
      for (const std::size_t k : tasks_of[static_cast<std::size_t>(lane)]) {
        const auto& task = factor.tasks[k];
        const SIDES own{x, columns, factor.nodes[task.end - 1].last, outside.data() + lane * above * columns, place.data()};
        for (int32_t s = task.begin; s < task.end; ++s) forward(factor, factor.nodes[s], own, gathered[t]);
      }
    });
    for (const int32_t s : factor.top) {
      for (int32_t p = factor.nodes[s].first; p <= factor.nodes[s].last; ++p) {
        for (int64_t lane = 0; lane < lanes; ++lane) {
          const double* o = outside.data() + (lane * above + place[p]) * columns;
          for (int64_t c = 0; c < columns; ++c) x[p * columns + c] += o[c];
        }
      }
    }
  } else {
    for (const auto& task : factor.tasks) {
      for (int32_t s = task.begin; s < task.end; ++s) forward(factor, factor.nodes[s], b, gathered[0]);
    }
  }
  for (const int32_t s : factor.top) {
    const SNODE& node = factor.nodes[s];
    const int64_t width = node.width(), below = node.rows - width;
    forward_square(factor, node, b);
    if (static_cast<double>(below) * width * columns <= shared_above) {
      forward_rows(factor, node, b, width, node.rows, gathered[0]);
      continue;
    }
    share(threads, (below + rows_at_once - 1) / rows_at_once, [&](int64_t k, int t) {
      const int64_t begin = width + k * rows_at_once;
      forward_rows(factor, node, b, begin, std::min(begin + rows_at_once, node.rows), gathered[t]);
    });
  }
}

// One tile backward by all threads.
void backward_together(const FACTOR& factor, double* x, int64_t columns, int threads, BUFFERS& gathered)
{
  const SIDES b{x, columns, factor.n - 1};
  for (auto s = factor.top.rbegin(); s != factor.top.rend(); ++s) backward(factor, factor.nodes[*s], b, threads, gathered[0]);
  share(threads, static_cast<int64_t>(factor.tasks.size()), [&](int64_t k, int t) {
    const auto& task = factor.tasks[k];
    for (int32_t s = task.end - 1; s >= task.begin; --s) backward(factor, factor.nodes[s], b, 1, gathered[t]);
  });
}

// Takes columns through the factor: `together` a single tile by all threads, `alone` one of many by one thread.
template <class Together, class Alone>
void sweep(const FACTOR& factor, double* b, int64_t columns, int threads, Together&& together, Alone&& alone)
{
  if (columns == 0 || factor.n == 0) return;
  threads = useful_threads(factor, threads);
  int64_t tiles = (columns + tile_columns - 1) / tile_columns;
  if (tiles > 1) tiles += tiles % 2;
  const int64_t widest = (columns + tiles - 1) / tiles;
  single_blas_thread();
  BUFFERS gathered(static_cast<std::size_t>(threads));
  for (auto& g : gathered) g.resize(static_cast<std::size_t>(longest_node(factor) * widest));
  if (columns == 1) {
    together(b, columns, threads, gathered);
    return;
  }
  BUFFERS rows(static_cast<std::size_t>(std::min<int64_t>(threads, tiles)));
  for (auto& r : rows) r.resize(static_cast<std::size_t>(factor.n * widest));
  share(static_cast<int>(rows.size()), tiles, [&](int64_t k, int t) {
    const int64_t from = k * columns / tiles, count = (k + 1) * columns / tiles - from;
    if (count == 0) return;
    double* x = rows[static_cast<std::size_t>(t)].data();
    to_rows(b + from * factor.n, factor.n, count, x);
    if (tiles == 1) {
      together(x, count, threads, gathered);
    } else {
      alone(x, count, gathered[static_cast<std::size_t>(t)]);
    }
    to_columns(x, factor.n, count, b + from * factor.n);
  });
}

constexpr int64_t block_bytes = int64_t{64} << 20;  // of a thread's block of sparse columns
constexpr int64_t fewest_columns = 8;
constexpr int64_t most_columns = 64;

}  // namespace

SQUARE_SWEEPS::SQUARE_SWEEPS(const FACTOR& factor, int threads)
    : factor_(factor),
      tile_(std::clamp(block_bytes / (8 * std::max<int64_t>(factor.n, 1)), fewest_columns, most_columns)),
      work_(static_cast<std::size_t>(useful_threads(factor, threads)))
{
  for (WORK& work : work_) {
    work.block.assign(static_cast<std::size_t>(factor.n * tile_), 0.0);
    work.gathered.resize(static_cast<std::size_t>(longest_node(factor) * tile_));
    work.marked.assign(factor.nodes.size(), 0);
    work.path.reserve(factor.nodes.size());
  }
}

void SQUARE_SWEEPS::sweep(const SPARSE_COLUMNS& z, int64_t from, int64_t to, WORK& work, double* out) const
{
  const int64_t columns = to - from;
  work.path.clear();
  for (int64_t c = from; c < to; ++c) {
    for (int64_t k = z.start[c]; k < z.start[c + 1]; ++k) {
      work.block[z.position[k] * columns + (c - from)] += z.value[k];
      for (int32_t s = factor_.node_of[z.position[k]]; s >= 0 && work.marked[s] == 0; s = factor_.nodes[s].parent) {
        work.marked[s] = 1;
        work.path.push_back(s);
      }
    }
  }
  std::sort(work.path.begin(), work.path.end());
  const SIDES b{work.block.data(), columns, factor_.n - 1};
  for (const int32_t s : work.path) forward(factor_, factor_.nodes[s], b, work.gathered);
  std::fill(out, out + (to - from), 0.0);
  for (const int32_t s : work.path) {
    work.marked[s] = 0;
    const SNODE& node = factor_.nodes[s];
    for (int32_t p = node.first; p <= node.last; ++p) {
      for (int64_t c = 0; c < columns; ++c) {
        double& t = work.block[p * columns + c];
        out[c] += t * t * factor_.reciprocal[p];
        t = 0.0;
      }
    }
  }
}

void SQUARE_SWEEPS::squares(const SPARSE_COLUMNS& z, std::vector<double>& out)
{
  out.resize(static_cast<std::size_t>(z.count()));
  single_blas_thread();
  const int64_t tiles = (z.count() + tile_ - 1) / tile_;
  share(static_cast<int>(work_.size()), tiles, [&](int64_t k, int t) {
    const int64_t from = k * tile_;
    sweep(z, from, std::min(from + tile_, z.count()), work_[t], out.data() + from);
  });
}

void SMIFWD(const FACTOR& factor, double* b, int64_t columns, int threads)
{
  sweep(
      factor, b, columns, threads,
      [&](double* x, int64_t count, int all, BUFFERS& gathered) { forward_together(factor, x, count, all, gathered); },
      [&](double* x, int64_t count, std::vector<double>& gathered) {
        const SIDES tile{x, count, factor.n - 1};
        for (const SNODE& node : factor.nodes) forward(factor, node, tile, gathered);
      });
}

void SMIBCK(const FACTOR& factor, double* b, int64_t columns, int threads)
{
  sweep(
      factor, b, columns, threads,
      [&](double* x, int64_t count, int all, BUFFERS& gathered) { backward_together(factor, x, count, all, gathered); },
      [&](double* x, int64_t count, std::vector<double>& gathered) {
        const SIDES tile{x, count, factor.n - 1};
        for (auto node = factor.nodes.rbegin(); node != factor.nodes.rend(); ++node) backward(factor, *node, tile, 1, gathered);
      });
}

}  // namespace tolvan
