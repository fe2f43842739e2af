// The score of the parameters of random terms.  Routine: K4MSCG.
#include <algorithm>
#include <array>
#include <numeric>

#include "estimation/evaluation.h"
#include "estimation/score_parts.h"
#include "estimation/share.h"

namespace tolvan {
namespace {

constexpr std::size_t most_sums = 1 << 20;  // that are kept for every part of a structure's equations

/// Column p of C-inverse from its diagonal on, each element at its row in `work`.
void spread_column(const MIXED_EQUATIONS& q, std::size_t p, const std::vector<double>& inverse, std::vector<double>& work)
{
  const auto to = static_cast<std::size_t>(q.c.start[p + 1]);
  for (auto k = static_cast<std::size_t>(q.c.start[p]); k < to; ++k) work[static_cast<std::size_t>(q.c.row[k])] = inverse[k];
}

/// The equations of one structure in C-inverse plus u u'/s2, summed for every component that has parameters over the others:
/// S_c(a, b) = sum over pairs of equations at levels a and b of c of T(e, f) times the inverse elements of the other components.
void gather_pairs(std::int64_t first, std::int64_t begin, std::int64_t end, PRODUCT_ROWS& rows, const MIXED_EQUATIONS& q,
                  const std::vector<double>& inverse, const EVALUATION& ev, const std::vector<double*>& s, std::vector<double>& work)
{
  for (std::int64_t e = begin; e < end; ++e) {
    const auto p = static_cast<std::size_t>(q.position_of(first + e));
    const double up = ev.solution[p] / ev.sigma2;
    rows.move_to(e);
    if (rows.diagonal()) {
      const double t = inverse[static_cast<std::size_t>(q.c.start[p])] + up * ev.solution[p];
      rows.contract([t](std::int64_t) { return t; }, e, false, s);
      continue;
    }
    spread_column(q, p, inverse, work);
    rows.contract(
        [&](std::int64_t f) {
          const auto o = static_cast<std::size_t>(q.position_of(first + f));
          return o < p ? 0.0 : work[o] + up * ev.solution[o];
        },
        e, false, s);
  }
}

/// tr(T G^-1) over the equations of one structure, T being C-inverse plus u u'/s2: all that the scale of a known matrix needs, at a
/// fraction of the time and without room for the sums.
double scaled_trace(std::int64_t first, std::int64_t begin, std::int64_t end, PRODUCT_ROWS& rows, const MIXED_EQUATIONS& q,
                    const std::vector<double>& inverse, const EVALUATION& ev, std::vector<double>& work)
{
  double total = 0.0;
  for (std::int64_t e = begin; e < end; ++e) {
    const auto p = static_cast<std::size_t>(q.position_of(first + e));
    const double up = ev.solution[p] / ev.sigma2;
    spread_column(q, p, inverse, work);
    double below = 0.0;
    rows.move_to(e);
    rows.each([&](std::int64_t f, double v) {
      const auto o = static_cast<std::size_t>(q.position_of(first + f));
      if (o > p) below += v * (work[o] + up * ev.solution[o]);
      if (o == p) total += v * (work[o] + up * ev.solution[o]);
    });
    total += 2.0 * below;
  }
  return total;
}

/// The same for one dense matrix: every column of C-inverse is walked once, element by element.
double scaled_trace_dense(std::int64_t first, std::int64_t begin, std::int64_t end, PRODUCT_ROWS& rows, const MIXED_EQUATIONS& q,
                          const std::vector<std::int32_t>& level, const std::vector<double>& inverse, const EVALUATION& ev)
{
  double total = 0.0;
  for (std::int64_t e = begin; e < end; ++e) {
    const auto p = static_cast<std::size_t>(q.position_of(first + e));
    const auto from = static_cast<std::size_t>(q.c.start[p]);
    const auto to = static_cast<std::size_t>(q.c.start[p + 1]);
    const double up = ev.solution[p] / ev.sigma2;
    rows.move_to(e);
    const double* g = rows.dense_row();
    double below = 0.0;
#pragma omp simd reduction(+ : below)
    for (std::size_t k = from + 1; k < to; ++k) {
      const auto o = static_cast<std::size_t>(q.c.row[k]);
      const std::int32_t f = level[o];
      if (f >= 0) below += g[f] * (inverse[k] + up * ev.solution[o]);
    }
    total += g[e] * (inverse[from] + up * ev.solution[p]) + 2.0 * below;
  }
  return rows.scale() * total;
}

/// L_CHECK_XFA: factor models without specific variances: one of them in a product, first or last of two.  False when it is not so.
bool L_CHECK_XFA(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const TERM_STRUCTURE& structure, const COMPONENTS& components,
                 std::int64_t& fault)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t extended_factors = 31;
  constexpr std::int64_t three_way = 3020;
  std::int64_t reduced = 0;
  bool inside = false;
  for (std::size_t c = 0; c < components.size(); ++c) {
    const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row) + c];
    if (row.selector != extended_factors || components[c]->lagrangian().empty()) continue;
    ++reduced;
    inside = inside || (c > 0 && c + 1 < components.size());
  }
  if (reduced == 0 || (reduced == 1 && components.size() <= 2)) return true;
  fault = three_way;
  if (reduced > 1) {
    eh.error("Only one XFA term with zero PSIs is permitted");
    eh.continuation("failed forming G scores");
  } else if (inside) {
    eh.error("XFA term with Zero PSIs must be first or last in direct product");
    eh.continuation("failed forming G scores");
  }
  return false;
}

}  // namespace

void K4MSCG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q,
            const std::vector<double>& inverse, int threads, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MSCG", "K4MITR"};
  std::vector<std::vector<double>> work(static_cast<std::size_t>(threads));
  const auto work_of = [&](int thread) -> std::vector<double>& {
    auto& own = work[static_cast<std::size_t>(thread)];
    own.resize(static_cast<std::size_t>(q.n), 0.0);
    return own;
  };
  std::vector<SCORE_PARTS> parts(static_cast<std::size_t>(sum_parts));
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const COMPONENTS& components = ev.formed.terms[t].components;
    if (!L_CHECK_XFA(eh, model, model.terms[t], components, ev.fault)) return;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    const std::int64_t size = q.random[t].size();
    std::vector<PRODUCT_ROWS> rows(static_cast<std::size_t>(threads), q.random[t]);
    if (components.size() == 1 && components.front()->scales_alone()) {
      const auto& active = ev.information.active;
      const std::int64_t parameter = model.rows[static_cast<std::size_t>(model.terms[t].first_row)].first;
      const auto at = std::lower_bound(active.begin(), active.end(), parameter);
      if (at == active.end() || *at != parameter) continue;
      std::array<double, sum_parts> traces{};
      const bool dense = rows.front().is_one_dense();
      std::vector<std::int32_t> level;
      if (dense) level = levels_by_position(q, first, size);
      share_parts(threads, size, [&](std::int64_t part, std::int64_t begin, std::int64_t end, int thread) {
        const auto own = static_cast<std::size_t>(thread);
        traces[static_cast<std::size_t>(part)] =
            dense ? scaled_trace_dense(first, begin, end, rows[own], q, level, inverse, ev)
                  : scaled_trace(first, begin, end, rows[own], q, inverse, ev, work_of(thread));
      });
      const double trace = std::accumulate(traces.begin(), traces.end(), 0.0);
      ev.information.score[static_cast<std::size_t>(at - active.begin())] +=
          -0.5 * (components.front()->score_part().front() - trace / ev.evaluated[static_cast<std::size_t>(parameter)]);
      continue;
    }
    if (!parts.front().prepare(components, model.rows, model.terms[t].first_row, ev.information)) continue;
    if (parts.front().stored() > most_sums) {  // one set of them is enough
      gather_pairs(first, 0, size, rows.front(), q, inverse, ev, parts.front().sums, work_of(0));
    } else {
      share_parts(threads, size, [&](std::int64_t part, std::int64_t begin, std::int64_t end, int thread) {
        SCORE_PARTS& own = parts[static_cast<std::size_t>(part)];
        if (part > 0) own.prepare(components, model.rows, model.terms[t].first_row, ev.information);
        gather_pairs(first, begin, end, rows[static_cast<std::size_t>(thread)], q, inverse, ev, own.sums, work_of(thread));
      });
      for (std::size_t part = 1; part < parts.size(); ++part) parts.front().add(parts[part]);
    }
    // d LogL / d theta = -0.5 (tr(G^-1 Gdot) - sum of T dGi)
    parts.front().add_scores(components, size, 1.0, ev.information);
  }
}

}  // namespace tolvan
