// The elimination tree, its postorder and the column counts of L.
#include <algorithm>
#include <numeric>

#include "estimation/symbolic.h"

namespace tolvan {

using std::int32_t;
using std::int64_t;

void permute_pattern(const PATTERN& pattern, const std::vector<int32_t>& order, LOWER_PATTERN& lower)
{
  const auto n = static_cast<int32_t>(pattern.n);
  std::vector<int32_t> position(order.size());
  for (int32_t p = 0; p < n; ++p) position[order[p]] = p;
  lower.start.assign(static_cast<std::size_t>(n) + 1, 0);
  for (int32_t j = 0; j < n; ++j) {
    for (int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) {
      ++lower.start[std::min(position[j], position[pattern.row[p]]) + 1];
    }
  }
  std::partial_sum(lower.start.begin(), lower.start.end(), lower.start.begin());
  lower.row.resize(static_cast<std::size_t>(lower.start[n]));
  std::vector<int64_t> fill(lower.start.begin(), lower.start.end() - 1);
  for (int32_t j = 0; j < n; ++j) {
    for (int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) {
      const auto [low, high] = std::minmax(position[j], position[pattern.row[p]]);
      lower.row[fill[low]++] = high;
    }
  }
}

void elimination_tree(const LOWER_PATTERN& lower, int64_t dense, std::vector<int32_t>& parent)
{
  const auto n = static_cast<int32_t>(lower.start.size()) - 1;
  const auto size = static_cast<std::size_t>(n);
  // The rows of L are visited in order: the transpose of the pattern.
  std::vector<int64_t> start(size + 1, 0);
  for (const int32_t i : lower.row) ++start[i + 1];
  std::partial_sum(start.begin(), start.end(), start.begin());
  std::vector<int32_t> column(lower.row.size());
  {
    std::vector<int64_t> fill(start.begin(), start.end() - 1);
    for (int32_t j = 0; j < n; ++j) {
      for (int64_t p = lower.start[j]; p < lower.start[j + 1]; ++p) column[fill[lower.row[p]]++] = j;
    }
  }
  parent.assign(size, -1);
  std::vector<int32_t> ancestor(size, -1);
  const auto climb = [&](int32_t k, int32_t i) {  // from k to the root of its tree, which i takes over
    while (k != -1 && k < i) {
      const int32_t up = ancestor[k];
      ancestor[k] = i;
      if (up == -1) parent[k] = i;
      k = up;
    }
  };
  for (int32_t i = 0; i < n; ++i) {
    for (int64_t p = start[i]; p < start[i + 1]; ++p) climb(column[p], i);
    if (i > n - dense) climb(i - 1, i);
  }
}

void postorder(const std::vector<int32_t>& parent, std::vector<int32_t>& order)
{
  const auto n = static_cast<int32_t>(parent.size());
  std::vector<int32_t> child(parent.size() + 1, -1), sibling(parent.size(), -1);  // child[n]: the roots
  for (int32_t i = n - 1; i >= 0; --i) {
    const int32_t p = parent[i] < 0 ? n : parent[i];
    sibling[i] = child[p];
    child[p] = i;
  }
  order.clear();
  order.reserve(parent.size());
  std::vector<int32_t> path{n};
  path.reserve(parent.size() + 1);
  while (!path.empty()) {
    const int32_t top = path.back();
    if (child[top] >= 0) {
      path.push_back(child[top]);
      child[top] = sibling[child[top]];
    } else {
      if (top < n) order.push_back(top);
      path.pop_back();
    }
  }
}

void column_counts(const LOWER_PATTERN& lower, int64_t dense, const std::vector<int32_t>& parent,
                   std::vector<int32_t>& count)
{
  const auto n = static_cast<int32_t>(parent.size());
  const auto size = parent.size();
  std::vector<int32_t> first(size);  // first descendant
  std::iota(first.begin(), first.end(), 0);
  count.assign(size, 1);  // a leaf starts with its diagonal
  for (int32_t j = 0; j < n; ++j) {
    if (parent[j] < 0) continue;
    first[parent[j]] = std::min(first[parent[j]], first[j]);
    count[parent[j]] = 0;
  }
  // Row i of L is the subtree of its leaves: each leaf adds one to the counts from it upwards, and one too
  // many from where two leaves meet.
  std::vector<int32_t> latest_first(size, -1), latest_leaf(size, -1), ancestor(size);
  std::iota(ancestor.begin(), ancestor.end(), 0);
  for (int32_t j = 0; j < n; ++j) {
    if (parent[j] >= 0) --count[parent[j]];
    for (int64_t p = lower.start[j]; p < lower.start[j + 1]; ++p) {
      const int32_t i = lower.row[p];
      if (first[j] <= latest_first[i]) continue;  // j is no leaf of the subtree
      latest_first[i] = first[j];
      ++count[j];
      const int32_t leaf = latest_leaf[i];
      latest_leaf[i] = j;
      if (leaf < 0) continue;
      int32_t meet = leaf;
      while (meet != ancestor[meet]) meet = ancestor[meet];
      for (int32_t k = leaf; k != meet;) {
        const int32_t up = ancestor[k];
        ancestor[k] = meet;
        k = up;
      }
      --count[meet];
    }
    if (parent[j] >= 0) ancestor[j] = parent[j];
  }
  for (int32_t j = 0; j < n; ++j) {
    if (j >= n - dense) {
      count[j] = n - j;
    } else if (parent[j] >= 0) {
      count[parent[j]] += count[j];
    }
  }
}

}  // namespace tolvan
