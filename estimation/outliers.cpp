// Outlier statistics of records and random effects.  Routines: K4MGIUA, K4MRIE.
#include "estimation/outliers.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "base/memory.h"

namespace tolvan {
namespace {

// Of R^-1 or G^-1 alone: what is left below this share of it is rounding, or a record that its own effects fit.
constexpr double nothing_left = 1e-10;
constexpr double not_swept = -1.0;

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

/// Whether a record has no neighbour in R^-1.
bool stands_alone(const RESIDUAL_INVERSE& ri, std::size_t r)
{
  if (ri.empty()) return true;
  for (std::size_t k = at(ri.start, r); k < at(ri.start, r + 1); ++k) {
    if (static_cast<std::size_t>(ri.record[k]) != r && ri.value[k] != 0.0) return false;
  }
  return true;
}

/// The element (r, r) of R^-1.
double own_weight(const FIT_MODEL& in, const MIXED_EQUATIONS& q, std::size_t r)
{
  if (q.residual.empty()) return q.ri * (in.design.weight.empty() ? 1.0 : std::max(in.design.weight[r], 0.0));
  for (std::size_t k = at(q.residual.start, r); k < at(q.residual.start, r + 1); ++k) {
    if (static_cast<std::size_t>(q.residual.record[k]) == r) return q.residual.value[k];
  }
  return 0.0;
}

/// How the variance of an effect's statistic is had.
enum class Way { no_record, one_record, diagonal, sweep };

Way way_of(const MIXED_EQUATIONS& q, const PRODUCT_ROWS& rows, std::size_t p)
{
  const std::size_t from = at(q.columns.start, p);
  const std::size_t count = at(q.columns.start, p + 1) - from;
  if (count == 0) return Way::no_record;
  if (count == 1 && stands_alone(q.residual, static_cast<std::size_t>(q.columns.record[from]))) return Way::one_record;
  return rows.diagonal() ? Way::diagonal : Way::sweep;
}

/// One column to sweep: which record or effect it is, and its lowest position, by which columns that share a path stand together.
struct COLUMN {
  std::int32_t lowest;
  std::int64_t of;
};

/// Sweeps the columns in batches; fill(of, put) puts the elements of one, square(of) receives z'C^-1 z.
void sweep_all(const FACTOR& factor, int threads, std::vector<COLUMN>& columns,
               const std::function<void(std::int64_t, SPARSE_COLUMNS&)>& fill, std::vector<double>& squares)
{
  if (columns.empty()) return;
  std::sort(columns.begin(), columns.end(),
            [](const COLUMN& a, const COLUMN& b) { return a.lowest != b.lowest ? a.lowest < b.lowest : a.of < b.of; });
  SQUARE_SWEEPS sweeps(factor, threads);
  SPARSE_COLUMNS z;
  std::vector<double> found;
  for (std::size_t from = 0; from < columns.size();) {
    const std::size_t to = std::min(columns.size(), from + static_cast<std::size_t>(sweeps.batch()));
    z.clear();
    for (std::size_t k = from; k < to; ++k) {
      fill(columns[k].of, z);
      z.close();
    }
    sweeps.squares(z, found);
    for (std::size_t k = from; k < to; ++k) squares[static_cast<std::size_t>(columns[k].of)] = found[k - from];
    from = to;
  }
}

/// z = W'R^-1 e_r of every record with neighbours in R^-1.
void sweep_records(const MIXED_EQUATIONS& q, int threads, std::vector<double>& squares)
{
  const RESIDUAL_INVERSE& ri = q.residual;
  if (ri.empty()) return;
  std::vector<COLUMN> columns;
  for (std::size_t r = 0; r < squares.size(); ++r) {
    if (stands_alone(ri, r)) continue;
    auto lowest = static_cast<std::int32_t>(q.n);
    for (std::size_t k = at(ri.start, r); k < at(ri.start, r + 1); ++k) {
      const auto s = static_cast<std::size_t>(ri.record[k]);
      if (q.rows.start[s] < q.rows.start[s + 1]) lowest = std::min(lowest, q.rows.record[at(q.rows.start, s)]);
    }
    columns.push_back({lowest, static_cast<std::int64_t>(r)});
  }
  std::vector<double> sum(static_cast<std::size_t>(q.n), 0.0);
  std::vector<std::int64_t> seen(sum.size(), -1);
  sweep_all(
      q.factor, threads, columns,
      [&](std::int64_t of, SPARSE_COLUMNS& z) {
        const auto r = static_cast<std::size_t>(of);
        const std::size_t first = z.position.size();
        for (std::size_t k = at(ri.start, r); k < at(ri.start, r + 1); ++k) {
          const auto s = static_cast<std::size_t>(ri.record[k]);
          for (std::size_t e = at(q.rows.start, s); e < at(q.rows.start, s + 1); ++e) {
            const auto p = static_cast<std::size_t>(q.rows.record[e]);
            if (seen[p] != of) {
              seen[p] = of;
              sum[p] = 0.0;
              z.position.push_back(q.rows.record[e]);
            }
            sum[p] += ri.value[k] * q.rows.value[e];
          }
        }
        for (std::size_t k = first; k < z.position.size(); ++k) z.value.push_back(sum[static_cast<std::size_t>(z.position[k])]);
      },
      squares);
}

/// z = G^-1 e_i of every effect that needs it.
void sweep_effects(const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& q, int threads, std::vector<double>& squares)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    PRODUCT_ROWS& rows = q.random[t];
    std::vector<COLUMN> columns;
    for (std::int64_t e = 0; e < rows.size(); ++e) {
      const std::int64_t p = q.position_of(first + e);
      if (way_of(q, rows, static_cast<std::size_t>(p)) == Way::sweep) columns.push_back({static_cast<std::int32_t>(p), e});
    }
    std::vector<double> found(static_cast<std::size_t>(rows.size()), not_swept);
    sweep_all(
        q.factor, threads, columns,
        [&](std::int64_t e, SPARSE_COLUMNS& z) {
          rows.move_to(e);
          rows.each([&](std::int64_t f, double v) {
            if (v == 0.0) return;
            z.position.push_back(static_cast<std::int32_t>(q.position_of(first + f)));
            z.value.push_back(v);
          });
        },
        found);
    for (std::int64_t e = 0; e < rows.size(); ++e) squares[static_cast<std::size_t>(q.position_of(first + e))] = found[static_cast<std::size_t>(e)];
  }
}

double statistic(double score, double variance, double alone)
{
  return variance > nothing_left * std::fabs(alone) ? score / std::sqrt(variance) : 0.0;
}

}  // namespace

void K4MGIUA(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& q, int threads, EVALUATION& ev)
{
  const Frame here{eh, __func__};
  const Timed timed{in.timing, "K4MGIUA", "K4MITR"};
  ev.outliers.formed = attempt([&] {
    ev.outliers.record.assign(q.y.size(), not_swept);
    ev.outliers.effect.assign(static_cast<std::size_t>(q.n), not_swept);
    sweep_records(q, threads, ev.outliers.record);
    sweep_effects(in, model, q, threads, ev.outliers.effect);
  });
  if (ev.outliers.formed) return;
  ev.outliers = {};
  eh.warning("Out of memory calculating outlier statistics.");
  eh.continuation("Increase workspace to get outlier statistics.");
}

void K4MRIE(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& q, const EVALUATION& ev, FIT_STATE& fit)
{
  const Frame here{eh, __func__};
  if (!ev.outliers.formed) return;
  const double s2 = ev.sigma2;
  const std::size_t rows = q.y.size();

  std::vector<double> score(rows);  // R^-1 e
  if (q.residual.empty()) {
    for (std::size_t r = 0; r < rows; ++r) score[r] = own_weight(in, q, r) * ev.residual[r];
  } else {
    multiply_residual_inverse(q.residual, ev.residual.data(), score.data());
  }
  std::vector<double> variance(rows);  // diag(P), where the record stands alone, else from its sweep
  fit.rinv_residual.resize(rows);
  fit.record_outlier.resize(rows);
  for (std::size_t r = 0; r < rows; ++r) {
    const double w = own_weight(in, q, r);
    const double swept = ev.outliers.record[r];
    variance[r] = swept == not_swept ? w * (1.0 - fit.hat[r]) : w - swept;
    fit.rinv_residual[r] = score[r] / s2;
    fit.record_outlier[r] = statistic(score[r] / s2, variance[r] / s2, w / s2);
  }
  for (const std::int64_t r : in.design.mv) {
    fit.rinv_residual[static_cast<std::size_t>(r)] = no_value;
    fit.record_outlier[static_cast<std::size_t>(r)] = no_value;
  }

  fit.ginv_effect.assign(static_cast<std::size_t>(q.n), no_value);  // model order; only random effects have them
  fit.effect_outlier.assign(static_cast<std::size_t>(q.n), no_value);
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    PRODUCT_ROWS& product = q.random[t];
    for (std::int64_t e = 0; e < product.size(); ++e) {
      const auto p = static_cast<std::size_t>(q.position_of(first + e));
      double alone = 0.0;  // the element (i, i) of G^-1, or of Z'R^-1 Z
      double left = 0.0;
      const Way way = way_of(q, product, p);
      if (way == Way::one_record) {
        const std::size_t k = at(q.columns.start, p);
        const auto r = static_cast<std::size_t>(q.columns.record[k]);
        const double x = q.columns.value[k];
        alone = x * x * own_weight(in, q, r);
        left = x * x * variance[r];
      } else if (way != Way::no_record) {
        product.move_to(e);
        product.each([&](std::int64_t f, double v) { alone += f == e ? v : 0.0; });
        left = alone - (way == Way::sweep ? ev.outliers.effect[p] : alone * alone * ev.inverse_diagonal[p]);
      }
      const auto m = static_cast<std::size_t>(first + e);
      fit.ginv_effect[m] = ev.random_part[p] / s2;
      fit.effect_outlier[m] = statistic(ev.random_part[p] / s2, left / s2, alone / s2);
    }
  }
}

}  // namespace tolvan
