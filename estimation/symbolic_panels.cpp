// Panels: wide nodes cut, row lists, the blocks in which nodes meet, and the tasks for threads.
#include <algorithm>
#include <numeric>

#include "estimation/supernode.h"
#include "estimation/symbolic.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

// The rows of every node of the tree: its columns, then what its columns of C and its children have below
// them.
void node_rows(const LOWER_PATTERN& lower, const NODE_TREE& tree, std::vector<int64_t>& start,
               std::vector<int32_t>& list)
{
  const auto nodes = static_cast<int32_t>(tree.parent.size());
  std::vector<int32_t> seen(lower.start.size(), -1);
  std::vector<int32_t> child(tree.parent.size(), -1), sibling(tree.parent.size(), -1);
  start.assign(tree.parent.size() + 1, 0);
  list.clear();
  for (int32_t s = 0; s < nodes; ++s) {
    const int32_t first = tree.first[s], end = tree.first[s + 1];
    for (int32_t j = first; j < end; ++j) list.push_back(j);
    const auto below = static_cast<std::ptrdiff_t>(list.size());
    const auto take = [&](int32_t i) {
      if (i < end || seen[i] == s) return;
      seen[i] = s;
      list.push_back(i);
    };
    for (int64_t p = lower.start[first]; p < lower.start[end]; ++p) take(lower.row[p]);
    for (int32_t c = child[s]; c >= 0; c = sibling[c]) {
      for (int64_t p = start[c] + tree.first[c + 1] - tree.first[c]; p < start[c + 1]; ++p) take(list[p]);
    }
    std::sort(list.begin() + below, list.end());
    start[s + 1] = static_cast<int64_t>(list.size());
    if (tree.parent[s] >= 0) {
      sibling[s] = child[tree.parent[s]];
      child[tree.parent[s]] = s;
    }
  }
}

// The runs of each node's update rows by the node that owns them, listed by source and by target.
void form_blocks(FACTOR& factor)
{
  const auto nodes = static_cast<int32_t>(factor.nodes.size());
  factor.blocks.clear();
  factor.block_start.assign(factor.nodes.size() + 1, 0);
  factor.incoming_start.assign(factor.nodes.size() + 1, 0);
  for (int32_t s = 0; s < nodes; ++s) {
    const SNODE& node = factor.nodes[s];
    const int32_t* row = factor.row_list.data() + node.row_list;
    for (auto r = static_cast<int32_t>(node.last - node.first + 1); r < node.rows;) {
      const int32_t target = factor.node_of[row[r]];
      const int32_t begin = r;
      while (r < node.rows && row[r] <= factor.nodes[target].last) ++r;
      factor.blocks.push_back({s, target, begin, r});
      ++factor.incoming_start[target + 1];
    }
    factor.block_start[s + 1] = static_cast<int64_t>(factor.blocks.size());
  }
  for (int32_t s = 0; s < nodes; ++s) factor.incoming_start[s + 1] += factor.incoming_start[s];
  factor.incoming.resize(factor.blocks.size());
  std::vector<int64_t> fill(factor.incoming_start.begin(), factor.incoming_start.end() - 1);
  for (std::size_t b = 0; b < factor.blocks.size(); ++b) {
    factor.incoming[fill[factor.blocks[b].target]++] = static_cast<int64_t>(b);
  }
}

// Subtrees small enough to be shared out whole; the nodes above them are worked one by one, all threads on
// each.
void form_tasks(FACTOR& factor)
{
  const auto nodes = static_cast<int32_t>(factor.nodes.size());
  std::vector<double> work(factor.nodes.size(), 0.0);
  std::vector<int32_t> begin(factor.nodes.size());
  double total = 0.0;
  for (int32_t s = 0; s < nodes; ++s) begin[s] = s;
  for (int32_t s = 0; s < nodes; ++s) {
    const SNODE& node = factor.nodes[s];
    const double rows = static_cast<double>(node.rows), width = node.last - node.first + 1;
    const double own = width * rows * (rows + 20.0);
    work[s] += own;
    total += own;
    if (node.parent >= 0) {
      work[node.parent] += work[s];
      begin[node.parent] = std::min(begin[node.parent], begin[s]);
    }
  }
  const double largest = total / 12.0, pack = total / 100.0;  // of a task; of small subtrees put together
  factor.tasks.clear();
  factor.top.clear();
  std::vector<std::uint8_t> covered(factor.nodes.size(), 0);
  for (int32_t s = nodes - 1; s >= 0; --s) {
    const int32_t p = factor.nodes[s].parent;
    covered[s] = (p >= 0 && covered[p]) || work[s] <= largest;
  }
  double packed = 0.0;
  std::vector<double> task_work;
  for (int32_t s = 0; s < nodes; ++s) {
    if (!covered[s]) {
      factor.top.push_back(s);
      continue;
    }
    const int32_t p = factor.nodes[s].parent;
    if (p >= 0 && covered[p]) continue;  // inside a subtree whose root comes later
    if (!factor.tasks.empty() && factor.tasks.back().end == begin[s] && packed + work[s] <= pack) {
      factor.tasks.back().end = s + 1;
      packed += work[s];
      task_work.back() = packed;
    } else {
      factor.tasks.push_back({begin[s], s + 1, 0.0});
      task_work.push_back(packed = work[s]);
    }
  }
  // The longest first, so that the threads end at about the same time.
  std::vector<FACTOR::TASK> sorted;
  std::vector<std::size_t> sequence(task_work.size());
  std::iota(sequence.begin(), sequence.end(), std::size_t{0});
  std::stable_sort(sequence.begin(), sequence.end(),
                   [&](auto a, auto b) { return task_work[a] > task_work[b]; });
  for (const std::size_t k : sequence) sorted.push_back({factor.tasks[k].begin, factor.tasks[k].end, task_work[k]});
  factor.tasks.swap(sorted);
}

// What a node takes up first: the blocks of the subtrees that are done without BLAS, in one go over the whole node.
void split_incoming(FACTOR& factor)
{
  std::vector<std::uint8_t> above(factor.nodes.size(), 0);
  for (const int32_t s : factor.top) above[s] = 1;
  factor.incoming_rest.resize(factor.nodes.size());
  for (std::size_t s = 0; s < factor.nodes.size(); ++s) {
    const auto begin = factor.incoming.begin() + factor.incoming_start[s];
    const auto rest = std::stable_partition(begin, factor.incoming.begin() + factor.incoming_start[s + 1], [&](int64_t b) {
      return !above[factor.blocks[b].source] && is_plain(factor, factor.blocks[b]);
    });
    factor.incoming_rest[s] = rest - factor.incoming.begin();
  }
}

}  // namespace

void form_panels(const LOWER_PATTERN& lower, const NODE_TREE& tree, FACTOR& factor)
{
  const auto whole_nodes = static_cast<int32_t>(tree.parent.size());
  std::vector<int64_t> start;
  node_rows(lower, tree, start, factor.row_list);
  factor.nodes.clear();
  factor.node_of.resize(static_cast<std::size_t>(factor.n));
  factor.entries = 0;
  factor.flops = 0.0;
  int64_t panel = 0;
  for (int32_t s = 0; s < whole_nodes; ++s) {
    const int32_t width = tree.first[s + 1] - tree.first[s];
    const int64_t rows = start[s + 1] - start[s];
    // The panels of a cut node share its row list, each from its own first column on.
    const int32_t panels = (width + widest_panel - 1) / widest_panel;
    int32_t done = 0;
    for (int32_t k = 0; k < panels; ++k) {
      int32_t take = (width - done + panels - k - 1) / (panels - k);
      if (panels > 1) take = std::min((take + 15) / 16 * 16, width - done);  // whole tiles of the BLAS
      SNODE node;
      node.first = tree.first[s] + done;
      node.last = node.first + take - 1;
      node.rows = rows - done;
      node.row_list = start[s] + done;
      node.panel = panel;
      panel += node.rows * take;
      for (int32_t j = node.first; j <= node.last; ++j) {
        factor.node_of[j] = static_cast<int32_t>(factor.nodes.size());
        const double below = static_cast<double>(node.rows - 1 - (j - node.first));
        factor.entries += static_cast<int64_t>(below) + 1;
        factor.flops += below * below;
      }
      factor.nodes.push_back(node);
      done += take;
    }
  }
  factor.panel_size = panel;
  for (SNODE& node : factor.nodes) {
    const int32_t width = node.last - node.first + 1;
    const int32_t* row = factor.row_list.data() + node.row_list;
    node.contiguous = row[node.rows - 1] - row[0] == node.rows - 1;
    node.parent = node.rows > width ? factor.node_of[row[width]] : -1;
  }
  form_blocks(factor);
  form_tasks(factor);
  split_incoming(factor);
}

}  // namespace tolvan
