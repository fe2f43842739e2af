// SMIFWD and SMIBCK: the sweeps of right-hand sides through the factor.
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

// Takes tiles of columns through the nodes; `step` works one node.
template <class Nodes>
void sweep(const FACTOR& factor, double* b, int64_t columns, int threads, Nodes&& through_nodes)
{
  int64_t longest = 0;
  for (const SNODE& node : factor.nodes) longest = std::max(longest, node.rows);
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

}  // namespace

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
