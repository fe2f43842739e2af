// K4MXXAIL: the absorption of C, node by node.
//
// Left-looking: a node takes up its part of C, subtracts what the nodes below it leave for it and is then
// factorised. Subtrees are shared out among the threads; on the nodes above them all threads work together,
// on tiles of rows.  The order in which a node takes up its blocks is that of its list, whoever does it.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "base/lapack.h"
#include "base/large_pages.h"
#include "base/memory.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

constexpr int spins = 2000;  // looks at a counter before the processor is offered to others
constexpr double rounding_t0 = 1e-12;  // of equations that cannot be singular: below it three digits are left

struct ABSORPTION {
  const COEFFICIENTS& c;
  FACTOR& factor;
  PIVOT_RULE& rule;
  WATCH& watch;
  std::vector<NODE_WORK>& work;
  std::vector<int32_t>& parts_left;      // of every node, counted by what waits for it; unused on one thread
  std::vector<int32_t>& diagonals_left;  // 1 until the square on a node's diagonal is done
  bool shared = false;                   // several threads are at work
  std::atomic<bool> off_pattern{false};

  bool halted() { return watch.stop() || rule.contested.load(std::memory_order_relaxed); }
  // False when the work is called off before what a counter counts has sunk to `most`.
  bool wait(int32_t& counter, int32_t most)
  {
    if (!shared) return true;
    for (int round = 0; std::atomic_ref{counter}.load(std::memory_order_acquire) > most; ++round) {
      if (round < spins) continue;
      if (halted()) return false;
      std::this_thread::yield();
    }
    return true;
  }
  void count_down(int32_t& counter)
  {
    if (shared) std::atomic_ref{counter}.fetch_sub(1, std::memory_order_acq_rel);
  }
};

// The tiles of rows in which a node is worked.  The first is the square on the diagonal, or a node of few rows whole.
struct TILES {
  explicit TILES(const SNODE& node)
      : rows(node.rows), width(node.width()), count(rows > untiled_rows ? 1 + (rows - width + tile_rows - 1) / tile_rows : 1)
  {
  }
  int64_t begin(int64_t k) const { return k == 0 ? 0 : width + (k - 1) * tile_rows; }
  int64_t end(int64_t k) const { return count > 1 ? std::min(width + k * tile_rows, rows) : rows; }
  int64_t rows, width, count;
};

// A panel starts as zeros and the node's part of C.
void load_node(ABSORPTION& run, const SNODE& node, const ROW_PLACES& places)
{
  const int32_t* rows = run.factor.row_list.data() + node.row_list;
  const COEFFICIENTS& c = run.c;
  for (int32_t j = node.first; j <= node.last; ++j) {
    double* column = run.factor.panel.data() + node.panel + (j - node.first) * node.rows;
    std::fill(column, column + node.rows, 0.0);
    for (int64_t k = c.start[j]; k < c.start[j + 1]; ++k) {
      const int64_t place = places(c.row[k]);
      if (place < 0 || place >= node.rows || rows[place] != c.row[k]) {
        run.off_pattern = true;
        continue;
      }
      column[place] = c.value[k];
    }
  }
}

// A node takes up its part of C and what the subtrees leave for it in narrow blocks.
bool start_node(ABSORPTION& run, int32_t s, int thread)
{
  FACTOR& factor = run.factor;
  const SNODE& node = factor.nodes[s];
  const ROW_PLACES places = place_rows(factor, s, run.work[thread]);
  double* panel = factor.panel.data() + node.panel;
  load_node(run, node, places);
  for (int64_t b = factor.incoming_start[s]; b < factor.incoming_rest[s]; ++b) {
    const SBLOCK& block = factor.blocks[factor.incoming[b]];
    if (!run.wait(run.parts_left[block.source], 0)) return false;
    update_plain(factor, block, places, panel, 0, node.rows);
  }
  return true;
}

// The tiles from `begin` to `end` of a node take up all other blocks.
bool take_up(ABSORPTION& run, int32_t s, const TILES& tiles, int64_t begin, int64_t end, int thread)
{
  FACTOR& factor = run.factor;
  NODE_WORK& work = run.work[thread];
  double* panel = factor.panel.data() + factor.nodes[s].panel;
  const ROW_PLACES places = place_rows(factor, s, work);
  for (int64_t b = factor.incoming_rest[s]; b < factor.incoming_start[s + 1]; ++b) {
    const SBLOCK& block = factor.blocks[factor.incoming[b]];
    if (run.watch.stop() || !run.wait(run.parts_left[block.source], 0)) return false;
    const bool plain = is_plain(factor, block);
    if (!plain) scale_columns(factor, block, work);
    for (int64_t k = begin; k < end; ++k) {
      if (plain) {
        update_plain(factor, block, places, panel, tiles.begin(k), tiles.end(k));
      } else {
        update_blocked(factor, block, places, panel, tiles.begin(k), tiles.end(k), work);
      }
    }
  }
  return true;
}

// The first tile is factorised, the others follow it.
bool finish_tile(ABSORPTION& run, int32_t s, const TILES& tiles, int64_t k, int thread)
{
  FACTOR& factor = run.factor;
  const SNODE& node = factor.nodes[s];
  double* panel = factor.panel.data() + node.panel;
  double* reciprocal = factor.reciprocal.data() + node.first;
  if (k == 0) {
    DSMINODEABS(node, factor.row_list.data() + node.row_list, panel, run.rule, reciprocal, run.work[thread]);
    run.count_down(run.diagonals_left[s]);
  } else if (!run.wait(run.diagonals_left[s], 0)) {
    return false;
  }
  NOTRANS(node, panel, reciprocal, std::max(tiles.begin(k), tiles.width), tiles.end(k));
  run.count_down(run.parts_left[s]);
  return true;
}

void absorb_node(ABSORPTION& run, int32_t s, int thread)
{
  const TILES tiles(run.factor.nodes[s]);
  if (!start_node(run, s, thread) || !take_up(run, s, tiles, 0, tiles.count, thread)) return;
  for (int64_t k = 0; k < tiles.count; ++k) finish_tile(run, s, tiles, k, thread);
}

// Work that one thread takes in hand.
struct ITEM {
  enum Part : std::int32_t { subtree, start, tile } part;
  int32_t which;  // task, or node
  int32_t tile_number = 0;
};

// The list that threads take their work from: the subtrees whole, then the nodes above them in parts.  A part may
// wait for others; all of those stand before it, so that some thread has them in hand.  A node's start stands before
// the tiles of the node before it, for work while that one is being finished.
bool list_items(ERROR_HANDLER& eh, const FACTOR& factor, std::vector<ITEM>& items)
{
  int64_t count = std::ssize(factor.tasks);
  for (const int32_t s : factor.top) count += 1 + TILES(factor.nodes[s]).count;
  if (!reserve(eh, items, count)) return false;
  for (int32_t k = 0; k < std::ssize(factor.tasks); ++k) items.push_back({ITEM::subtree, k});
  for (std::size_t k = 0; k < factor.top.size(); ++k) {
    if (k == 0) items.push_back({ITEM::start, factor.top[0]});
    if (k + 1 < factor.top.size()) items.push_back({ITEM::start, factor.top[k + 1]});
    const TILES tiles(factor.nodes[factor.top[k]]);
    for (int32_t t = 0; t < tiles.count; ++t) items.push_back({ITEM::tile, factor.top[k], t});
  }
  return true;
}

void absorb_items(ABSORPTION& run, const std::vector<ITEM>& items, int threads)
{
  const FACTOR& factor = run.factor;
  std::fill(run.diagonals_left.begin(), run.diagonals_left.end(), 1);
  for (std::size_t s = 0; s < factor.nodes.size(); ++s) run.parts_left[s] = static_cast<int32_t>(TILES(factor.nodes[s]).count);
  for (const int32_t s : factor.top) ++run.parts_left[s];  // its start
  std::atomic<std::size_t> next{0};
  const auto work_off = [&](const ITEM& item, int thread) {
    if (item.part == ITEM::subtree) {
      const auto& task = factor.tasks[item.which];
      for (int32_t s = task.begin; s < task.end && !run.halted(); ++s) absorb_node(run, s, thread);
      return;
    }
    if (item.part == ITEM::start) {
      if (start_node(run, item.which, thread)) run.count_down(run.parts_left[item.which]);
      return;
    }
    const TILES tiles(factor.nodes[item.which]);
    if (!run.wait(run.parts_left[item.which], static_cast<int32_t>(tiles.count))) return;
    const int32_t k = item.tile_number;
    if (take_up(run, item.which, tiles, k, k + 1, thread)) finish_tile(run, item.which, tiles, k, thread);
  };
  share(threads, threads, [&](int64_t, int thread) {
    for (std::size_t k = next++; k < items.size() && !run.halted(); k = next++) work_off(items[k], thread);
  });
}

void absorb_nodes(ABSORPTION& run, const std::vector<ITEM>& items, int threads)
{
  run.shared = !run.rule.in_order;
  if (run.shared) return absorb_items(run, items, threads);
  for (std::size_t s = 0; s < run.factor.nodes.size() && !run.halted(); ++s) absorb_node(run, static_cast<int32_t>(s), 0);
}

// What the pivots were, in order.  Singular pivots leave the diagonal.
void take_stock(FACTOR& factor, const PIVOT_RULE& rule, ABSORBED& absorbed)
{
  for (const SNODE& node : factor.nodes) {
    for (int32_t j = node.first; j <= node.last; ++j) {
      double& d = factor.panel[node.panel + (j - node.first) * (node.rows + 1)];
      if (rule.report[j] != 0) absorbed.reported.push_back({j, d, rule.tolerance[j], rule.report[j] == 2});
      if (factor.reciprocal[j] == 0.0) {
        d = 0.0;
        ++absorbed.singular;
      } else {
        absorbed.log_determinant += std::log(std::abs(d));
        absorbed.negative += d < 0.0;
      }
    }
  }
  if (rule.not_finite) absorbed.log_determinant = std::nan("");
}

}  // namespace

void K4MXXAIL(ERROR_HANDLER& eh, const COEFFICIENTS& c, const ABSORB_CONTROL& control, FACTOR& factor,
              ABSORBED& absorbed)
{
  const Frame here{eh, __func__};
  absorbed = {};
  absorbed.t0 = control.t0;
  factor.holds_inverse = false;
  const int threads = useful_threads(factor, control.threads);

  std::vector<NODE_WORK> work;
  std::vector<double> tolerance;
  std::vector<std::uint8_t> report;
  std::vector<int32_t> parts_left, diagonals_left;
  std::vector<ITEM> items;
  if (std::ssize(factor.panel) < factor.panel_size) {  // the first time
    if (!reserve(eh, factor.panel, factor.panel_size)) return;
    advise_large_pages(factor.panel.data(), factor.panel_size * static_cast<int64_t>(sizeof(double)));
  }
  if (!resize(eh, factor.panel, factor.panel_size) || !resize(eh, factor.reciprocal, factor.n) ||
      !resize(eh, tolerance, factor.n) || !assign(eh, report, factor.n, std::uint8_t{0}) ||
      !reserve_work(eh, factor, threads, work) || !resize(eh, parts_left, std::ssize(factor.nodes)) ||
      !resize(eh, diagonals_left, std::ssize(factor.nodes)) || !list_items(eh, factor, items)) {
    return;
  }
  const auto is_definite = [&](int64_t p) { return !control.definite.empty() && control.definite[p] == 1; };
  for (int64_t p = 0; p < factor.n; ++p) {
    const double d = std::abs(c.diagonal(p));
    tolerance[p] = is_definite(p) ? d * std::min(control.t0, rounding_t0) : std::max(d, control.floor) * control.t0;
  }

  single_blas_thread();
  WATCH watch(control.cancel);
  const bool may_tighten = control.default_tolerance && control.t0 == 1e-8;
  for (bool in_order = threads == 1;; in_order = true) {
    PIVOT_RULE rule;
    rule.tolerance = tolerance.data();
    rule.flags = control.flags.empty() ? nullptr : control.flags.data();
    rule.definite = control.definite.empty() ? nullptr : control.definite.data();
    rule.t0 = control.t0;
    rule.may_tighten = may_tighten;
    rule.in_order = in_order;
    rule.report = report.data();
    for (NODE_WORK& w : work) w.mapped = -1;
    ABSORPTION run{c, factor, rule, watch, work, parts_left, diagonals_left};
    absorb_nodes(run, items, threads);
    if (run.off_pattern) {
      eh.internal("errors detected in sparse matrix");
      return;
    }
    if (watch.stop()) {
      absorbed.cancelled = true;
      return;
    }
    if (rule.contested) {  // the first small pivot in order is accepted, no other one: once more, in order
      std::fill(report.begin(), report.end(), std::uint8_t{0});
      continue;
    }
    take_stock(factor, rule, absorbed);
    absorbed.t0 = rule.t0;
    absorbed.tightened = rule.t0 != control.t0;
    return;
  }
}

}  // namespace tolvan
