// SMIFWD and SMIBCK, the sweeps of right-hand sides through the factor, and those of sparse ones.
#include <algorithm>

#include "base/lapack.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

constexpr int64_t tile_columns = 16;  // right-hand sides that one thread takes through the factor at a time

// A node this narrow, or a lone right-hand side on a small one, is done without BLAS.
bool is_plain(const SNODE& node, int64_t columns)
{
  return node.width() <= 2 || node.width() * columns * node.rows <= 2048;
}

void forward(const FACTOR& factor, const SNODE& node, double* b, int64_t columns,
             std::vector<double>& gathered)
{
  const int64_t n = factor.n, ld = node.rows, width = node.width(), below = node.rows - width;
  const int32_t* row = factor.row_list.data() + node.row_list;
  const double* l = factor.panel.data() + node.panel;
  if (is_plain(node, columns)) {
    for (int64_t c = 0; c < columns; ++c) {
      double* x = b + c * n;
      for (int64_t k = 0; k < width; ++k) {
        const double xk = x[row[k]];
        const double* lk = l + k * ld;
        for (int64_t r = k + 1; r < ld; ++r) x[row[r]] -= lk[r] * xk;
      }
    }
    return;
  }
  double* top = b + node.first;
  dtrsm('L', 'L', 'N', 'U', width, columns, 1.0, l, ld, top, n);
  if (below == 0) return;
  dgemm('N', 'N', below, columns, width, 1.0, l + width, ld, top, n, 0.0, gathered.data(), below);
  for (int64_t c = 0; c < columns; ++c) {
    double* x = b + c * n;
    const double* g = gathered.data() + c * below;
    for (int64_t r = 0; r < below; ++r) x[row[width + r]] -= g[r];
  }
}

void backward(const FACTOR& factor, const SNODE& node, double* b, int64_t columns,
              std::vector<double>& gathered)
{
  const int64_t n = factor.n, ld = node.rows, width = node.width(), below = node.rows - width;
  const int32_t* row = factor.row_list.data() + node.row_list;
  const double* l = factor.panel.data() + node.panel;
  const double* reciprocal = factor.reciprocal.data() + node.first;
  double* top = b + node.first;
  for (int64_t c = 0; c < columns; ++c) {
    for (int64_t k = 0; k < width; ++k) top[k + c * n] *= reciprocal[k];
  }
  if (is_plain(node, columns)) {
    for (int64_t c = 0; c < columns; ++c) {
      double* x = b + c * n;
      for (int64_t k = width - 1; k >= 0; --k) {
        double sum = x[row[k]];
        const double* lk = l + k * ld;
        for (int64_t r = k + 1; r < ld; ++r) sum -= lk[r] * x[row[r]];
        x[row[k]] = sum;
      }
    }
    return;
  }
  if (below > 0) {
    for (int64_t c = 0; c < columns; ++c) {
      const double* x = b + c * n;
      double* g = gathered.data() + c * below;
      for (int64_t r = 0; r < below; ++r) g[r] = x[row[width + r]];
    }
    dgemm('T', 'N', width, columns, below, -1.0, l + width, ld, gathered.data(), below, 1.0, top, n);
  }
  dtrsm('L', 'L', 'T', 'U', width, columns, 1.0, l, ld, top, n);
}

int64_t longest_node(const FACTOR& factor)
{
  int64_t longest = 0;
  for (const SNODE& node : factor.nodes) longest = std::max(longest, node.rows);
  return longest;
}

// Takes tiles of columns through the nodes; `step` works one node.
template <class Nodes>
void sweep(const FACTOR& factor, double* b, int64_t columns, int threads, Nodes&& through_nodes)
{
  const int64_t longest = longest_node(factor);
  const int64_t tiles = (columns + tile_columns - 1) / tile_columns;
  threads = static_cast<int>(std::clamp<int64_t>(threads, 1, std::max<int64_t>(tiles, 1)));
  std::vector<std::vector<double>> gathered(static_cast<std::size_t>(threads));
  for (auto& g : gathered) g.resize(static_cast<std::size_t>(longest * std::min(columns, tile_columns)));
  single_blas_thread();
  share(threads, tiles, [&](int64_t k, int t) {
    const int64_t begin = k * tile_columns;
    through_nodes(b + begin * factor.n, std::min(tile_columns, columns - begin), gathered[t]);
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
  const int64_t n = factor_.n;
  work.path.clear();
  for (int64_t c = from; c < to; ++c) {
    for (int64_t k = z.start[c]; k < z.start[c + 1]; ++k) {
      work.block[z.position[k] + (c - from) * n] += z.value[k];
      for (int32_t s = factor_.node_of[z.position[k]]; s >= 0 && work.marked[s] == 0; s = factor_.nodes[s].parent) {
        work.marked[s] = 1;
        work.path.push_back(s);
      }
    }
  }
  std::sort(work.path.begin(), work.path.end());
  for (const int32_t s : work.path) forward(factor_, factor_.nodes[s], work.block.data(), to - from, work.gathered);
  std::fill(out, out + (to - from), 0.0);
  for (const int32_t s : work.path) {
    work.marked[s] = 0;
    const SNODE& node = factor_.nodes[s];
    for (int64_t c = 0; c < to - from; ++c) {
      for (int32_t p = node.first; p <= node.last; ++p) {
        double& t = work.block[p + c * n];
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
  sweep(factor, b, columns, threads, [&](double* tile, int64_t count, std::vector<double>& gathered) {
    for (const SNODE& node : factor.nodes) forward(factor, node, tile, count, gathered);
  });
}

void SMIBCK(const FACTOR& factor, double* b, int64_t columns, int threads)
{
  sweep(factor, b, columns, threads, [&](double* tile, int64_t count, std::vector<double>& gathered) {
    for (auto node = factor.nodes.rbegin(); node != factor.nodes.rend(); ++node) {
      backward(factor, *node, tile, count, gathered);
    }
  });
}

}  // namespace tolvan
