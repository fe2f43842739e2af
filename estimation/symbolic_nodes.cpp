// Supernodes: fundamental ones from the column counts, then merged while that saves time.
#include <algorithm>
#include <numeric>

#include "estimation/symbolic.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

// Seconds that a node of so many columns and rows takes, roughly: flops at the rate that the width allows, a
// fixed cost and one a row.  Only ratios matter; measured with the kernels of bench/.
double cost_of_node(double width, double rows)
{
  constexpr double peak = 35e9, half_width = 16.0, a_node = 200e-9, a_row = 6e-9;
  const double below = rows - width;
  const double flops = width * (below * below + width * below + width * width / 3.0);
  return flops * (width + half_width) / (width * peak) + a_node + a_row * rows;
}

// Fundamental supernodes: a column joins its only child when it has the child's pattern less one row.
void fundamental_nodes(const std::vector<int32_t>& parent, const std::vector<int32_t>& count, int64_t dense,
                       std::vector<int32_t>& first, std::vector<int32_t>& node_of)
{
  const auto n = static_cast<int32_t>(parent.size());
  std::vector<int32_t> children(parent.size(), 0);
  for (const int32_t p : parent) {
    if (p >= 0) ++children[p];
  }
  node_of.resize(parent.size());
  first.clear();
  for (int32_t j = 0; j < n; ++j) {
    const bool joined = j > 0 && (j > n - dense || (j < n - dense && parent[j - 1] == j && children[j] == 1 &&
                                                    count[j - 1] == count[j] + 1));
    if (!joined) first.push_back(j);
    node_of[j] = static_cast<int32_t>(first.size()) - 1;
  }
  first.push_back(n);
}

}  // namespace

void merge_nodes(const std::vector<int32_t>& parent, const std::vector<int32_t>& count, int64_t dense,
                 NODE_TREE& tree, std::vector<int32_t>& order)
{
  std::vector<int32_t> first, node_of;
  fundamental_nodes(parent, count, dense, first, node_of);
  const auto nodes = static_cast<int32_t>(first.size()) - 1;
  const auto size = static_cast<std::size_t>(nodes);

  struct Shape {
    int32_t width;
    int32_t rows;
  };
  std::vector<Shape> shape(size);
  std::vector<int32_t> up(size, -1), child(size, -1), sibling(size, -1), into(size);
  std::iota(into.begin(), into.end(), 0);
  for (int32_t s = nodes - 1; s >= 0; --s) {
    shape[s] = {first[s + 1] - first[s], count[first[s]]};
    const int32_t p = parent[first[s + 1] - 1];
    if (p < 0) continue;
    up[s] = node_of[p];
    sibling[s] = child[up[s]];
    child[up[s]] = s;
  }

  // From the leaves up: a parent takes in its children, the longest first.
  std::vector<int32_t> candidates;
  for (int32_t p = 0; p < nodes; ++p) {
    candidates.clear();
    for (int32_t c = child[p]; c >= 0; c = sibling[c]) candidates.push_back(c);
    std::stable_sort(candidates.begin(), candidates.end(),
                     [&](int32_t a, int32_t b) { return shape[a].rows > shape[b].rows; });
    for (const int32_t c : candidates) {
      const Shape merged{shape[p].width + shape[c].width, shape[p].rows + shape[c].width};
      const bool no_zeros = merged.rows == shape[c].rows;
      if (!no_zeros &&
          cost_of_node(merged.width, merged.rows) >=
              cost_of_node(shape[p].width, shape[p].rows) + cost_of_node(shape[c].width, shape[c].rows)) {
        continue;
      }
      into[c] = p;
      shape[p] = merged;
    }
  }
  for (int32_t s = nodes - 1; s >= 0; --s) into[s] = into[into[s]];  // parents come later: one step is enough

  // The tree of the merged nodes, numbered by a postorder; the columns of each in their old order.
  std::vector<int32_t> number(size, -1), top;
  for (int32_t s = 0; s < nodes; ++s) {
    if (into[s] == s) {
      number[s] = static_cast<int32_t>(top.size());
      top.push_back(s);
    }
  }
  std::vector<int32_t> merged_parent(top.size(), -1), sequence;
  for (std::size_t k = 0; k < top.size(); ++k) {
    if (up[top[k]] >= 0) merged_parent[k] = number[into[up[top[k]]]];
  }
  postorder(merged_parent, sequence);
  std::vector<int32_t> rank(top.size());
  tree.first.assign(top.size() + 1, 0);
  tree.parent.resize(top.size());
  for (std::size_t k = 0; k < sequence.size(); ++k) {
    rank[sequence[k]] = static_cast<int32_t>(k);
    tree.first[k + 1] = tree.first[k] + shape[top[sequence[k]]].width;
  }
  for (std::size_t k = 0; k < sequence.size(); ++k) {
    const int32_t p = merged_parent[sequence[k]];
    tree.parent[k] = p < 0 ? -1 : rank[p];
  }
  order.resize(parent.size());
  std::vector<int32_t> fill(tree.first.begin(), tree.first.end() - 1);
  for (int32_t s = 0; s < nodes; ++s) {
    int32_t& place = fill[rank[number[into[s]]]];
    for (int32_t j = first[s]; j < first[s + 1]; ++j) order[place++] = j;
  }
}

}  // namespace tolvan
