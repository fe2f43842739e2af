// The score of the parameters of the residual.  Routine: K4MSCR.
#include <algorithm>

#include "estimation/evaluation.h"
#include "estimation/score_parts.h"
#include "estimation/share.h"

namespace tolvan {
namespace {

/// The score of a variance v of a residual R = v R0 that is one scaled identity:
/// d LogL / d v = -0.5 (tr(P R0) - y'P R0 P y), where
///     v tr(P R0) = N - tr(C^-1 W'R^-1 W) = N - rank(C) + tr(C^-1 G^-1),   v y'P R0 P y = e'R^-1 e.
double score_of_identity(const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& q, const std::vector<double>& inverse,
                         const EVALUATION& ev, double v)
{
  double trace = 0.0;
  std::vector<double> work(static_cast<std::size_t>(q.n), 0.0);
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    PRODUCT_ROWS& rows = q.random[t];
    for (std::int64_t e = 0; e < rows.size(); ++e) {
      const auto p = static_cast<std::size_t>(q.position_of(first + e));
      const auto from = static_cast<std::size_t>(q.c.start[p]);
      const auto to = static_cast<std::size_t>(q.c.start[p + 1]);
      rows.move_to(e);
      if (rows.diagonal()) {
        rows.each([&](std::int64_t, double g) { trace += g * inverse[from]; });
        continue;
      }
      for (std::size_t k = from; k < to; ++k) work[static_cast<std::size_t>(q.c.row[k])] = inverse[k];
      rows.each([&](std::int64_t f, double g) {
        const auto o = static_cast<std::size_t>(q.position_of(first + f));
        if (o >= p) trace += (o == p ? 1.0 : 2.0) * g * work[o];
      });
    }
  }
  double rank = 0.0;
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) rank += q.factor.reciprocal[p] != 0.0 ? 1.0 : 0.0;
  return -0.5 * (static_cast<double>(q.records) - rank + trace - ev.residual_square) / v;
}

/// The sum of H R0^-1 over a section with R = v R0, R0 = diag(1/weight), H = W C^-1 W' + e e'/s2; given tr(C^-1 W'R0^-1 W).
double identity_sum(const FORMED_SECTION& formed, const MIXED_EQUATIONS& q, const EVALUATION& ev, double trace)
{
  const std::vector<double>& root_weight = q.residual.root_weight;
  double squares = 0.0;
  for (std::int64_t r = formed.first; r < formed.first + formed.records; ++r) {
    const auto at = static_cast<std::size_t>(r);
    const double e = (root_weight.empty() ? 1.0 : root_weight[at]) * ev.residual[at];
    squares += e * e;
  }
  return trace + squares / ev.sigma2;
}

/// The active parameters of one section, and the sum of H R^-1 over it for the variance that scales it.
///   halves  of W C^-1 W'; traces  of the sections whose cross-products are kept
void score_section(const VARIANCE_MODEL& model, std::size_t s, MIXED_EQUATIONS& q, const std::vector<double>& halves,
                   const std::vector<double>& traces, EVALUATION& ev, SCORE_PARTS& parts)
{
  const RESIDUAL_SECTION& section = model.sections[s];
  const FORMED_SECTION& formed = ev.formed.sections[s];
  const RESIDUAL_INVERSE& ri = q.residual;
  const auto root_weight = [&](std::size_t r) { return ri.root_weight.empty() ? 1.0 : ri.root_weight[r]; };
  const bool own = section.scale >= 0 && !(model.profiled && section.scale == model.residual_parameter) &&
                   std::binary_search(ev.information.active.begin(), ev.information.active.end(), section.scale);
  const bool any = parts.prepare(formed.components, model.residual, section.first_row, ev.information);
  if (!any && !own) return;
  double total = 0.0;  // tr(H R^-1)
  const bool kept = q.products.has(s);
  if (kept) {
    const double sum = identity_sum(formed, q, ev, traces[s]);
    total = sum * formed.scaled_identity();
    double scales = 1.0;
    for (const auto& component : formed.components) scales *= component->inverse().scale;
    for (std::size_t c = 0; c < formed.components.size(); ++c) {
      if (parts.sums[c] != nullptr) parts.sums[c][0] = sum * scales / formed.components[c]->inverse().scale;
    }
  }
  PRODUCT_ROWS& rows = q.residual.sections[s];
  for (std::int64_t a = 0; a < formed.records && !kept; ++a) {
    const auto r = static_cast<std::size_t>(formed.first + a);
    // Halves of H(r, s) = x_r'C^-1 x_s + e_r e_s / s2, weighted as R is.
    const double er = 0.5 * ev.residual[r] / ev.sigma2;
    const double wr = root_weight(r);
    auto k = static_cast<std::size_t>(ri.start[r]);
    const auto half = [&](std::size_t at) {
      const auto o = static_cast<std::size_t>(ri.record[at]);
      return halves[at] + er * ev.residual[o];
    };
    if (own) {
      for (std::size_t m = k; m < static_cast<std::size_t>(ri.start[r + 1]); ++m) total += 2.0 * half(m) * ri.value[m];
    }
    if (!any) continue;
    rows.move_to(a);
    rows.contract(
        [&](std::int64_t) {
          const double h = half(k) * wr * root_weight(static_cast<std::size_t>(ri.record[k]));
          ++k;
          return h;
        },
        a, true, parts.sums);
  }
  if (any) parts.add_scores(formed.components, formed.records, 1.0 / formed.scale, ev.information);
  if (!own) return;
  const auto& active = ev.information.active;
  const auto at = std::lower_bound(active.begin(), active.end(), section.scale) - active.begin();
  ev.information.score[static_cast<std::size_t>(at)] += -0.5 * (static_cast<double>(formed.records) - total) / formed.scale;
}

}  // namespace

void inverse_by_records(const MIXED_EQUATIONS& q, const std::vector<double>& inverse, int threads, bool all, std::vector<double>& halves)
{
  const RESIDUAL_INVERSE& ri = q.residual;
  const auto at = [](const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); };
  // Records are shared by columns, so that each part of the columns has sums of its own.
  std::vector<std::vector<double>> sums(static_cast<std::size_t>(sum_parts));
  std::vector<std::vector<double>> spread(static_cast<std::size_t>(threads));
  share_parts(threads, q.n, [&](std::int64_t part, std::int64_t begin, std::int64_t end, int thread) {
    auto& own = sums[static_cast<std::size_t>(part)];
    auto& work = spread[static_cast<std::size_t>(thread)];
    own.assign(ri.value.size(), 0.0);
    work.resize(static_cast<std::size_t>(q.n), 0.0);
    for (auto j = static_cast<std::size_t>(begin); j < static_cast<std::size_t>(end); ++j) {
      for (std::size_t k = at(q.c.start, j); k < at(q.c.start, j + 1); ++k) work[static_cast<std::size_t>(q.c.row[k])] = inverse[k];
      work[j] *= 0.5;  // the diagonal belongs to both orders
      for (std::size_t k = at(q.columns.start, j); k < at(q.columns.start, j + 1); ++k) {
        const auto r = static_cast<std::size_t>(q.columns.record[k]);
        if (!all && q.products.has_record(r)) continue;
        const double x = q.columns.value[k];
        for (std::size_t m = at(ri.start, r); m < at(ri.start, r + 1); ++m) {
          const auto s = static_cast<std::size_t>(ri.record[m]);
          double sum = 0.0;
          for (std::size_t e = at(q.rows.start, s + 1); e-- > at(q.rows.start, s);) {
            const auto i = static_cast<std::size_t>(q.rows.record[e]);
            if (i < j) break;
            sum += work[i] * q.rows.value[e];
          }
          own[m] += x * sum;
        }
      }
    }
  });
  halves.swap(sums.front());
  for (std::size_t part = 1; part < sums.size(); ++part) {
    for (std::size_t m = 0; m < halves.size(); ++m) halves[m] += sums[part][m];
  }
}

void K4MSCR(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& q, const std::vector<double>& inverse,
            int threads, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MSCR", "K4MITR"};
  if (q.residual.empty()) {
    if (model.profiled) return;  // profiled out: its score is zero
    const auto& active = ev.information.active;
    const auto at = std::lower_bound(active.begin(), active.end(), model.residual_parameter);
    if (at == active.end() || *at != model.residual_parameter) return;
    const double v = ev.evaluated[static_cast<std::size_t>(model.residual_parameter)];
    ev.information.score[static_cast<std::size_t>(at - active.begin())] += score_of_identity(in, model, q, inverse, ev, v);
    return;
  }
  // Nothing to do where all that R has is a profiled variance.
  std::vector<double> halves;
  if (!q.products.all()) inverse_by_records(q, inverse, threads, false, halves);
  const std::vector<double> traces = traces_by_section(q, inverse, threads);
  SCORE_PARTS parts;
  for (std::size_t s = 0; s < model.sections.size(); ++s) score_section(model, s, q, halves, traces, ev, parts);
}

}  // namespace tolvan
