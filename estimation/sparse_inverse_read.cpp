// Reading C-inverse: one element (K4MXIJ) or all elements on the pattern of C.
#include <algorithm>

#include "estimation/supernode.h"

namespace tolvan {

using std::int32_t;
using std::int64_t;

double K4MXIJ(const FACTOR& factor, int64_t i, int64_t j)
{
  if (i < j) std::swap(i, j);
  const SNODE& node = factor.nodes[factor.node_of[j]];
  const int32_t* list = factor.row_list.data() + node.row_list;
  const int32_t* found = node.contiguous
                             ? list + std::min<int64_t>(i - node.first, node.rows - 1)
                             : std::lower_bound(list, list + node.rows - 1, static_cast<int32_t>(i));
  if (*found != i) return 0.0;
  return factor.panel[node.panel + (found - list) + (j - node.first) * node.rows];
}

void gather_inverse(const FACTOR& factor, const COEFFICIENTS& c, std::vector<double>& inverse, int threads)
{
  inverse.resize(c.value.size());
  share_runs(std::max(1, threads), factor.n, 256, [&](int64_t begin, int64_t end, int) {
    for (int64_t j = begin; j < end; ++j) {
      const SNODE& node = factor.nodes[factor.node_of[j]];
      const int32_t* list = factor.row_list.data() + node.row_list;
      const double* column = factor.panel.data() + node.panel + (j - node.first) * node.rows;
      int64_t place = 0;
      for (int64_t p = c.start[j]; p < c.start[j + 1]; ++p) {
        if (node.contiguous) {
          place = c.row[p] - node.first;
        } else {  // both lists rise: step on, in growing strides
          int64_t step = 1;
          while (place + step < node.rows && list[place + step] <= c.row[p]) step *= 2;
          place = std::upper_bound(list + place, list + std::min(place + step, node.rows), c.row[p]) - list - 1;
        }
        inverse[p] = column[place];
      }
    }
  });
}

}  // namespace tolvan
