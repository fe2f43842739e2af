// Refilling the coefficient matrix in each evaluation.  Routines: K4MXXS, K4MXXG.
#include <algorithm>
#include <array>
#include <type_traits>

#include "estimation/equations.h"
#include "estimation/share.h"

namespace tolvan {
namespace {

constexpr std::int64_t extended_factors = 15;  // model code
constexpr std::int64_t columns_at_once = 128;  // of C, for one thread

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

/// W'R^-1 W in elimination order: column j gathers, through the rows of R^-1 of its records, the design rows of their
/// neighbours into a dense work vector (Gustavson 1978), so that no element is searched for.
///   by  what the products of sections that are kept are scaled by
void residual_cross_products(MIXED_EQUATIONS& q, const std::vector<double>& by, std::size_t begin, std::size_t end,
                             std::vector<double>& work)
{
  const RESIDUAL_INVERSE& ri = q.residual;
  const bool all_kept = q.products.all();
  for (std::size_t j = begin; j < end; ++j) {
    for (std::size_t k = at(q.columns.start, j); k < at(q.columns.start, j + 1) && !all_kept; ++k) {
      const auto r = static_cast<std::size_t>(q.columns.record[k]);
      if (q.products.has_record(r)) continue;
      const double x = q.columns.value[k];
      for (std::size_t m = at(ri.start, r); m < at(ri.start, r + 1); ++m) {
        const double wx = x * ri.value[m];
        if (wx == 0.0) continue;
        const auto s = static_cast<std::size_t>(ri.record[m]);
        // Positions rise within a row: from the end down to j.
        for (std::size_t e = at(q.rows.start, s + 1); e-- > at(q.rows.start, s);) {
          const auto i = static_cast<std::size_t>(q.rows.record[e]);
          if (i < j) break;
          work[i] += wx * q.rows.value[e];
        }
      }
    }
    for (std::size_t k = at(q.c.start, j); k < at(q.c.start, j + 1); ++k) {
      const auto i = static_cast<std::size_t>(q.c.row[k]);
      q.c0[k] = work[i];
      work[i] = 0.0;
    }
    if (by.empty()) continue;
    for (std::size_t k = at(q.products.start, j); k < at(q.products.start, j + 1); ++k) {
      const SECTION_PRODUCTS::ELEMENT& e = q.products.elements[k];
      q.c0[at(q.c.start, j) + static_cast<std::size_t>(e.at)] += by[static_cast<std::size_t>(e.section)] * e.value;
    }
  }
}

/// W'R^-1 y and y'R^-1 y.
void residual_right_hand_side(MIXED_EQUATIONS& q)
{
  std::vector<double> ry(q.y.size());
  multiply_residual_inverse(q.residual, q.y.data(), ry.data());
  q.y0 = 0.0;
  for (std::size_t r = 0; r < ry.size(); ++r) q.y0 += q.y[r] * ry[r];
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) {
    double sum = 0.0;
    for (std::size_t k = at(q.columns.start, p); k < at(q.columns.start, p + 1); ++k) {
      sum += q.columns.value[k] * ry[static_cast<std::size_t>(q.columns.record[k])];
    }
    q.r0[p] = sum;
  }
}

/// Calls f for the equations of Lagrangian rows and of factors at fixed genetic groups.  The rows of an inverse at its groups follow from
/// the others and such equations have no data, so that they always are singular: without them LogL does not hang on which equations
/// are found so, and multipliers, which have no diagonal to measure a pivot by, need not be found so.
template <class F>
void each_equation_without_data(const VARIANCE_MODEL& model, const TERM_STRUCTURE& structure, const COMPONENTS& components, F&& f)
{
  for (std::size_t g = 0; g < components.size(); ++g) {
    const AINV_MTX* matrix = model.rows[static_cast<std::size_t>(structure.first_row) + g].matrix;
    if (matrix == nullptr || matrix->absent == 0 || matrix->groups == 0) continue;
    for (std::size_t c = 0; c < components.size(); ++c) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row) + c];
      const bool factors = row.model == extended_factors;
      if (c == g || (!factors && components[c]->lagrangian().empty())) continue;
      const PRODUCT_BLOCK at_group = block_of(components, g);
      const PRODUCT_BLOCK at_row = block_of(components, c);
      std::vector<std::uint8_t> is_row(static_cast<std::size_t>(components[c]->inverse().n), 0);
      for (const auto& binding : components[c]->lagrangian()) is_row[static_cast<std::size_t>(binding.first)] = 1;
      if (factors) std::fill(is_row.begin() + row.parameters / (row.order + 1), is_row.end(), std::uint8_t{1});  // behind the levels
      // An empty group that was given a variance stands by itself, with a diagonal.
      const SYMMETRIC& inverse = components[g]->inverse();
      const auto is_fixed = [&](std::int64_t group) {
        if (inverse.shape != Shape::sparse) return matrix->absent == matrix->groups;
        return inverse.start[group + 1] - inverse.start[group] > 1 || inverse.values[inverse.start[group]] == 0.0;
      };
      for (std::int64_t o = 0; o < at_group.outer; ++o) {
        for (std::int64_t e = o * inverse.n * at_group.inner, k = 0; k < matrix->groups * at_group.inner; ++k) {
          if (!is_fixed(k / at_group.inner)) continue;
          if (is_row[static_cast<std::size_t>((e + k) / at_row.inner % components[c]->inverse().n)]) f(e + k);
        }
      }
    }
  }
}

/// Adds the rows begin .. end - 1 of G^-1 of one structure to C, each to the column of its equation.
void add_inverse(std::int64_t first, std::int64_t begin, std::int64_t end, PRODUCT_ROWS& rows, MIXED_EQUATIONS& q,
                 std::vector<std::int64_t>& place)
{
  const bool diagonal = rows.diagonal();
  for (std::int64_t e = begin; e < end; ++e) {
    const auto p = static_cast<std::size_t>(q.position_of(first + e));
    rows.move_to(e);
    if (diagonal) {
      rows.each([&](std::int64_t, double v) { q.c.value[at(q.c.start, p)] += v; });
      continue;
    }
    for (std::size_t k = at(q.c.start, p); k < at(q.c.start, p + 1); ++k) {
      place[static_cast<std::size_t>(q.c.row[k])] = static_cast<std::int64_t>(k);
    }
    rows.each([&](std::int64_t f, double v) {
      const auto o = static_cast<std::size_t>(q.position_of(first + f));
      if (o >= p) q.c.value[static_cast<std::size_t>(place[o])] += v;
    });
  }
}

/// The same for one dense matrix: every column of C is walked once, element by element.
void add_dense(std::int64_t first, std::int64_t begin, std::int64_t end, PRODUCT_ROWS& rows, const std::vector<std::int32_t>& level,
               MIXED_EQUATIONS& q)
{
  const double scale = rows.scale();
  for (std::int64_t e = begin; e < end; ++e) {
    const auto p = static_cast<std::size_t>(q.position_of(first + e));
    rows.move_to(e);
    const double* g = rows.dense_row();
    for (std::size_t k = at(q.c.start, p); k < at(q.c.start, p + 1); ++k) {
      const std::int32_t f = level[static_cast<std::size_t>(q.c.row[k])];
      if (f >= 0) q.c.value[k] += scale * g[f];
    }
  }
}

}  // namespace

std::vector<std::int32_t> levels_by_position(const MIXED_EQUATIONS& q, std::int64_t first, std::int64_t size)
{
  std::vector<std::int32_t> level(static_cast<std::size_t>(q.n), -1);
  for (std::int64_t f = 0; f < size; ++f) level[static_cast<std::size_t>(q.position_of(first + f))] = static_cast<std::int32_t>(f);
  return level;
}

void gather_effects(const MIXED_EQUATIONS& q, std::int64_t first, const double* from, std::vector<double>& u)
{
  for (std::size_t e = 0; e < u.size(); ++e) u[e] = from[q.position_of(first + static_cast<std::int64_t>(e))];
}

void scatter_effects(const MIXED_EQUATIONS& q, std::int64_t first, const std::vector<double>& u, double* to)
{
  for (std::size_t e = 0; e < u.size(); ++e) to[q.position_of(first + static_cast<std::int64_t>(e))] += u[e];
}

void K4MXXS(ERROR_HANDLER& eh, const FORMED& formed, int threads, MIXED_EQUATIONS& q)
{
  const Frame here{eh, __func__};
  if (q.residual.empty()) {
    q.ri = formed.scaled_identity();
  } else {
    q.ri = 1.0;
    fill_residual(formed, q.residual);
    if (q.solving != Solving::by_products) {
      std::vector<double> by(q.products.formed.size());
      for (std::size_t s = 0; s < by.size(); ++s) by[s] = formed.sections[s].scaled_identity();
      std::vector<std::vector<double>> work(static_cast<std::size_t>(threads));
      share_runs(threads, q.n, columns_at_once, [&](std::int64_t begin, std::int64_t end, int t) {
        auto& own = work[static_cast<std::size_t>(t)];
        own.resize(static_cast<std::size_t>(q.n), 0.0);
        residual_cross_products(q, by, static_cast<std::size_t>(begin), static_cast<std::size_t>(end), own);
      });
    }
    residual_right_hand_side(q);
  }
  const double scale = q.ri;
  std::transform(q.c0.begin(), q.c0.end(), q.c.value.begin(), [scale](double x) { return scale * x; });
}

void K4MXXG(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed, int threads,
            MIXED_EQUATIONS& q, double& log_det_g)
{
  const Frame here{eh, __func__};
  log_det_g = 0.0;
  std::vector<std::uint8_t> emptied;
  const auto empty = [&](std::int64_t equation) {
    if (emptied.empty()) emptied.assign(static_cast<std::size_t>(q.n), 0);
    emptied[static_cast<std::size_t>(q.position_of(equation))] = 1;
  };
  std::vector<std::vector<std::int64_t>> place(static_cast<std::size_t>(threads));
  for (auto& p : place) p.resize(static_cast<std::size_t>(q.n));
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    const std::int64_t first = first_equation(terms, model.terms[t]);
    if (model.terms[t].dropped) {
      // A variance of zero: the effects are zero, so their equations leave the system as singular ones.
      for (std::int64_t e = first; e < first + structure_size(model, model.terms[t]); ++e) empty(e);
      continue;
    }
    each_equation_without_data(model, model.terms[t], formed.terms[t].components, [&](std::int64_t e) { empty(first + e); });
    log_det_g += formed.terms[t].log_determinant;
    if (q.solving == Solving::by_products) continue;
    q.random[t].refresh(formed.terms[t].components);
    std::vector<PRODUCT_ROWS> rows(static_cast<std::size_t>(threads), q.random[t]);
    const bool dense = rows.front().is_one_dense();
    std::vector<std::int32_t> level;
    if (dense) level = levels_by_position(q, first, q.random[t].size());
    share_runs(threads, q.random[t].size(), columns_at_once, [&](std::int64_t begin, std::int64_t end, int thread) {
      const auto own = static_cast<std::size_t>(thread);
      if (dense) return add_dense(first, begin, end, rows[own], level, q);
      add_inverse(first, begin, end, rows[own], q, place[own]);
    });
  }
  if (emptied.empty() || q.solving == Solving::by_products) return;
  for (std::size_t j = 0; j < static_cast<std::size_t>(q.n); ++j) {
    for (std::size_t k = at(q.c.start, j); k < at(q.c.start, j + 1); ++k) {
      if (emptied[j] || emptied[static_cast<std::size_t>(q.c.row[k])]) q.c.value[k] = 0.0;
    }
  }
}

void multiply_residual_part(const MIXED_EQUATIONS& q, const double* a, double* b, std::int64_t columns, int threads)
{
  // The matrix is read once for a few columns at a time.
  constexpr std::int64_t together = 8;
  const auto n = static_cast<std::size_t>(q.n);
  const auto all = static_cast<std::size_t>(columns);
  std::fill(b, b + all * n, 0.0);
  const auto multiply = [&]<std::size_t width>(std::integral_constant<std::size_t, width>, const double* x, double* y) {
    for (std::size_t j = 0; j < n; ++j) {
      const std::size_t from = at(q.c.start, j);
      const std::size_t to = at(q.c.start, j + 1);
      std::array<double, width> xj, sum;
      for (std::size_t m = 0; m < width; ++m) {
        xj[m] = x[j + m * n];
        sum[m] = q.c0[from] * xj[m];
      }
      for (std::size_t k = from + 1; k < to; ++k) {
        const double c = q.c0[k];
        if (c == 0.0) continue;  // it is of a random term alone
        const auto i = static_cast<std::size_t>(q.c.row[k]);
        for (std::size_t m = 0; m < width; ++m) {
          sum[m] += c * x[i + m * n];
          y[i + m * n] += c * xj[m];
        }
      }
      for (std::size_t m = 0; m < width; ++m) y[j + m * n] += sum[m];
    }
  };
  share(threads, columns / together, [&](std::int64_t k, int) {
    const auto from = static_cast<std::size_t>(k * together) * n;
    multiply(std::integral_constant<std::size_t, together>{}, a + from, b + from);
  });
  share(threads, columns % together, [&](std::int64_t k, int) {
    const auto from = static_cast<std::size_t>(columns - columns % together + k) * n;
    multiply(std::integral_constant<std::size_t, 1>{}, a + from, b + from);
  });
  if (q.ri == 1.0) return;
  std::transform(b, b + all * n, b, [ri = q.ri](double x) { return x * ri; });
}

}  // namespace tolvan
