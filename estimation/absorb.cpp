// K4MXXAIL: the absorption of C, node by node.
//
// Left-looking: a node takes up its part of C, subtracts what the nodes below it leave for it and is then
// factorised. Subtrees are shared out among the threads; on the nodes above them all threads work together,
// on tiles of rows.
#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/memory.h"
#include "estimation/supernode.h"

namespace tolvan {

namespace {

using std::int32_t;
using std::int64_t;

struct ABSORPTION {
  const COEFFICIENTS& c;
  FACTOR& factor;
  PIVOT_RULE& rule;
  WATCH& watch;
  std::vector<NODE_WORK>& work;
  std::atomic<bool> off_pattern{false};
};

// A panel starts as zeros and the node's part of C, in the rows begin .. end - 1.
void load_rows(ABSORPTION& run, const SNODE& node, const ROW_PLACES& places, int64_t begin, int64_t end)
{
  const int32_t* rows = run.factor.row_list.data() + node.row_list;
  const COEFFICIENTS& c = run.c;
  for (int32_t j = node.first; j <= node.last; ++j) {
    double* column = run.factor.panel.data() + node.panel + (j - node.first) * node.rows;
    std::fill(column + begin, column + end, 0.0);
    const int32_t* first = c.row.data() + c.start[j];
    const int32_t* last = c.row.data() + c.start[j + 1];
    if (begin > 0) first = std::lower_bound(first, last, rows[begin]);
    if (end < node.rows) last = std::lower_bound(first, last, rows[end]);
    for (; first < last; ++first) {
      const int64_t place = places(*first);
      if (place < 0 || place >= node.rows || rows[place] != *first) {
        run.off_pattern = true;
        continue;
      }
      column[place] = c.value[first - c.row.data()];
    }
  }
}

// One node, shared by `threads` threads; the first of them is number `thread` of the run.
void absorb_node(ABSORPTION& run, int32_t s, int threads, int thread)
{
  FACTOR& factor = run.factor;
  const SNODE& node = factor.nodes[s];
  const int32_t* rows = factor.row_list.data() + node.row_list;
  const int64_t width = node.width();
  double* panel = factor.panel.data() + node.panel;
  double* reciprocal = factor.reciprocal.data() + node.first;
  NODE_WORK& own = run.work[thread];
  const ROW_PLACES places = place_rows(factor, node, own.map);

  // Tile 0 is the square on the diagonal, or a node of few rows whole.
  const bool tiled = node.rows > untiled_rows;
  const int64_t tiles = tiled ? 1 + (node.rows - width + tile_rows - 1) / tile_rows : 1;
  const auto tile_begin = [&](int64_t k) { return k == 0 ? 0 : width + (k - 1) * tile_rows; };
  const auto tile_end = [&](int64_t k) {
    return tiled ? std::min(width + k * tile_rows, node.rows) : node.rows;
  };
  const int forked = static_cast<double>(node.rows) * width * node.rows > fork_above ? threads : 1;

  share(forked, tiles, [&](int64_t k, int) { load_rows(run, node, places, tile_begin(k), tile_end(k)); });

  int64_t blocked = 0;
  for (int64_t b = factor.incoming_start[s]; b < factor.incoming_start[s + 1]; ++b) {
    const SBLOCK& block = factor.blocks[factor.incoming[b]];
    if (is_plain(factor, block)) {
      update_plain(factor, block, places, panel);
    } else {
      ++blocked;
    }
  }
  if (blocked > 0) {
    share(forked, tiles, [&](int64_t k, int t) {
      for (int64_t b = factor.incoming_start[s]; b < factor.incoming_start[s + 1]; ++b) {
        const SBLOCK& block = factor.blocks[factor.incoming[b]];
        if (is_plain(factor, block)) continue;
        if (run.watch.stop()) return;
        update_blocked(factor, block, places, panel, tile_begin(k), tile_end(k), run.work[thread + t]);
      }
    });
  }

  DSMINODEABS(node, rows, panel, run.rule, reciprocal, own);
  if (node.rows == width) return;
  if (!tiled) {
    NOTRANS(node, panel, reciprocal, width, node.rows);
  } else {
    share(forked, tiles - 1,
          [&](int64_t k, int) { NOTRANS(node, panel, reciprocal, tile_begin(k + 1), tile_end(k + 1)); });
  }
}

void absorb_nodes(ABSORPTION& run, int threads)
{
  const FACTOR& factor = run.factor;
  const auto halted = [&] { return run.watch.stop() || run.rule.contested.load(std::memory_order_relaxed); };
  if (run.rule.in_order) {
    for (std::size_t s = 0; s < factor.nodes.size() && !halted(); ++s) {
      absorb_node(run, static_cast<int32_t>(s), threads, 0);
    }
    return;
  }
  share(threads, static_cast<int64_t>(factor.tasks.size()), [&](int64_t k, int t) {
    for (int32_t s = factor.tasks[k].begin; s < factor.tasks[k].end && !halted(); ++s)
      absorb_node(run, s, 1, t);
  });
  for (const int32_t s : factor.top) {
    if (halted()) return;
    absorb_node(run, s, threads, 0);
  }
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
  if (!resize(eh, factor.panel, factor.panel_size) || !resize(eh, factor.reciprocal, factor.n) ||
      !resize(eh, tolerance, factor.n) || !assign(eh, report, factor.n, std::uint8_t{0}) ||
      !reserve_work(eh, factor, threads, work)) {
    return;
  }
  for (int64_t p = 0; p < factor.n; ++p)
    tolerance[p] = std::max(std::abs(c.diagonal(p)), control.floor) * control.t0;

  single_blas_thread();
  WATCH watch(control.cancel);
  const bool may_tighten = control.default_tolerance && control.t0 == 1e-8;
  for (bool in_order = threads == 1;; in_order = true) {
    PIVOT_RULE rule;
    rule.tolerance = tolerance.data();
    rule.flags = control.flags.empty() ? nullptr : control.flags.data();
    rule.t0 = control.t0;
    rule.may_tighten = may_tighten;
    rule.in_order = in_order;
    rule.report = report.data();
    ABSORPTION run{c, factor, rule, watch, work};
    absorb_nodes(run, threads);
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
