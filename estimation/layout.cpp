// The layout of the mixed-model equations, found once a fit.  Routine: SETUP_EQUATIONS.
#include <algorithm>
#include <cmath>
#include <limits>

#include "base/memory.h"
#include "base/text.h"
#include "estimation/equations.h"
#include "estimation/lagrangian_order.h"
#include "estimation/null_levels.h"
#include "estimation/order_equations.h"

namespace tolvan {
namespace {

constexpr std::int64_t default_dense_limit = 800;
constexpr double far_from_zero = 1e5;  // squared mean over variance of a covariate

/// The design row by row in inner order, covariates centred.
struct INNER_DESIGN {
  const DESIGN_MTX& design;
  std::vector<std::int32_t> equation;  // aligned with design.equation
  std::vector<double> value;           // aligned with design.value
};

/// L_GDENSE: marks the equations of the first random structure as dense, as the option gdense asks, where the machine can hold
/// their triangle; gives their number.  Lagrangian equations need an order of their own and stay sparse.
std::int64_t L_GDENSE(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
                      std::int64_t dense, std::vector<std::uint8_t>& is_dense)
{
  const Frame here{eh, __func__};
  constexpr double bytes_of_element = 36.0;  // of the triangle: in C, in its residual part, in the factor, the row
  if (model.terms.empty()) return 0;
  const TERM_STRUCTURE& structure = model.terms.front();
  const TERM_ROW& term = terms.rows[static_cast<std::size_t>(structure.term)];
  const std::int64_t size = structure_size(model, structure);
  const auto order = static_cast<double>(dense + size);
  const bool bound = std::any_of(formed.terms.front().components.begin(), formed.terms.front().components.end(),
                                 [](const auto& component) { return !component->lagrangian().empty(); });
  if (bound || 0.5 * order * order * bytes_of_element > static_cast<double>(machine_memory_bytes())) {
    eh.note(text("random model term ", term.name, " is moved to the sparse block"));
    return 0;
  }
  const std::int64_t first = first_equation(terms, structure);
  std::fill(is_dense.begin() + first, is_dense.begin() + first + size, std::uint8_t{1});
  eh.note(text(term.name, " is included in the dense equations"));
  return size;
}

/// L_PLACE_TERMS: decides which equations are dense and numbers all in inner order.
///   dense   in all
///   fixed   of them fixed
void L_PLACE_TERMS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, const VARIANCE_MODEL& model,
                   const FORMED& formed, MIXED_EQUATIONS& q, std::int64_t& dense, std::int64_t& fixed)
{
  const Frame here{eh, __func__};
  const std::int64_t asked = options(Slot::dense);
  const std::int64_t limit = asked == 0 ? default_dense_limit : std::max<std::int64_t>(asked, 0);
  const auto n = static_cast<std::size_t>(q.n);
  std::vector<std::uint8_t> is_dense(n, 0);
  q.fixed.assign(n, 0);
  dense = 0;
  bool room = true;
  for (const TERM_ROW& term : terms.rows) {
    if (term.equations == 0 || term.block == Block::random || term.block == Block::response) continue;
    const auto from = static_cast<std::size_t>(term.first);
    const auto to = from + static_cast<std::size_t>(term.equations);
    std::fill(q.fixed.begin() + term.first, q.fixed.begin() + term.first + term.equations, std::uint8_t{1});
    if (term.block != Block::fixed) continue;
    if (room && dense + term.equations > limit) {
      room = false;
      eh.note("Too many fixed effects for the dense block.");
    }
    if (!room) {
      eh.continuation(text("fixed model term ", term.name, " is moved to the sparse block"));
      continue;
    }
    for (std::size_t e = from; e < to; ++e) is_dense[e] = 1;
    dense += term.equations;
  }
  fixed = dense;
  if (options(Slot::gdense) > 0) dense += L_GDENSE(eh, terms, model, formed, dense, is_dense);
  q.inner.resize(n);
  std::int32_t sparse_next = 0;
  auto dense_next = static_cast<std::int32_t>(q.n - dense);
  for (std::size_t e = 0; e < n; ++e) q.inner[e] = is_dense[e] ? dense_next++ : sparse_next++;
}

/// The constants to take off the response and off fixed covariates before any product.
///
/// Sums of squares formed raw lose all digits at offsets of 1e6 and more.  With mu in the model a constant can be taken off
/// the response and given back to mu; a covariate that is a fixed main effect by itself can be centred likewise, provided
/// mu is the first of the fixed effects (so that it cannot be the one left out as singular) and every record has the value.
void choose_shifts(const TERM_TABLE& terms, const DESIGN_MTX& design, std::int64_t dense, MIXED_EQUATIONS& q)
{
  std::int64_t fixed_terms = 0;
  bool mu_first = false;
  bool all_dense = true;
  for (const TERM_ROW& term : terms.rows) {
    if (term.block == Block::sparse && !term.is_mv) all_dense = false;
    if (term.block != Block::fixed) continue;
    if (term.name == "mu" && term.equations == 1) {
      q.mu = term.first;
      mu_first = fixed_terms == 0;
    }
    ++fixed_terms;
  }
  if (q.mu < 0) return;
  if (dense < terms.fixed_equations) all_dense = false;

  // The mean over the records used; any constant of the size of the data serves.
  const std::int64_t rows = design.rows();
  std::vector<std::uint8_t> estimated(static_cast<std::size_t>(rows), 0);
  for (const std::int64_t r : design.mv) estimated[static_cast<std::size_t>(r)] = 1;
  double mean = 0.0;
  double count = 0.0;
  for (std::size_t r = 0; r < static_cast<std::size_t>(rows); ++r) {
    if (estimated[r] || (!design.weight.empty() && design.weight[r] <= 0.0)) continue;
    count += 1.0;
    mean += (design.beside_offset(r) - mean) / count;
  }
  q.shift = mean;

  if (!mu_first) return;
  std::vector<std::int64_t> covariates;
  for (const TERM_ROW& term : terms.rows) {
    const bool main_effect = (term.block == Block::fixed || term.block == Block::sparse) && term.code <= 10000 && !term.is_mv;
    if (main_effect && term.equations == 1 && term.first != q.mu) {
      covariates.push_back(term.first);
    }
  }
  if (covariates.empty()) return;
  std::vector<std::int64_t> slot(static_cast<std::size_t>(q.n), -1);
  for (std::size_t k = 0; k < covariates.size(); ++k) slot[static_cast<std::size_t>(covariates[k])] = static_cast<std::int64_t>(k);
  std::vector<double> means(covariates.size(), 0.0);
  std::vector<double> present(covariates.size(), 0.0);
  std::vector<double> squares(covariates.size(), 0.0);  // of the deviations from the mean
  for (std::size_t k = 0; k < design.equation.size(); ++k) {
    const std::int64_t s = slot[static_cast<std::size_t>(design.equation[k])];
    if (s < 0) continue;
    const auto i = static_cast<std::size_t>(s);
    present[i] += 1.0;
    const double deviation = design.value[k] - means[i];
    means[i] += deviation / present[i];
    squares[i] += deviation * (design.value[k] - means[i]);
  }
  for (std::size_t k = 0; k < covariates.size(); ++k) {
    // Beside sparse fixed effects mu may be the one left out, and its standard error with it is that of another basis;
    // there only a covariate so far from zero that its equation would be lost is centred.
    const bool far = means[k] * means[k] > far_from_zero * squares[k] / std::max(1.0, present[k]);
    if (present[k] == static_cast<double>(rows) && means[k] != 0.0 && std::isfinite(means[k]) && (all_dense || far)) {
      q.centred.push_back({covariates[k], means[k]});
    }
  }
}

/// The design in inner order with centred covariates.
INNER_DESIGN inner_design(const DESIGN_MTX& design, const MIXED_EQUATIONS& q)
{
  INNER_DESIGN d{design, {}, design.value};
  std::vector<double> shift(static_cast<std::size_t>(q.n), 0.0);
  for (const CENTRED& c : q.centred) shift[static_cast<std::size_t>(c.equation)] = c.shift;
  d.equation.resize(design.equation.size());
  for (std::size_t k = 0; k < d.equation.size(); ++k) {
    const auto e = static_cast<std::size_t>(design.equation[k]);
    d.equation[k] = q.inner[e];
    d.value[k] -= shift[e];
  }
  return d;
}

/// The design by columns, columns numbered by map[inner equation]; records rise within a column.
DESIGN_COLUMNS by_columns(const INNER_DESIGN& d, std::int64_t n, const std::vector<std::int32_t>* map)
{
  DESIGN_COLUMNS columns;
  const auto size = static_cast<std::size_t>(n);
  columns.start.assign(size + 1, 0);
  const auto column = [&](std::int32_t e) {
    return static_cast<std::size_t>(map == nullptr ? e : (*map)[static_cast<std::size_t>(e)]);
  };
  for (const std::int32_t e : d.equation) ++columns.start[column(e) + 1];
  for (std::size_t e = 0; e < size; ++e) columns.start[e + 1] += columns.start[e];
  columns.record.resize(d.equation.size());
  columns.value.resize(d.equation.size());
  std::vector<std::int64_t> next(columns.start.begin(), columns.start.end() - 1);
  const std::int64_t rows = d.design.rows();
  for (std::int64_t r = 0; r < rows; ++r) {
    const auto from = static_cast<std::size_t>(d.design.start[static_cast<std::size_t>(r)]);
    const auto to = static_cast<std::size_t>(d.design.start[static_cast<std::size_t>(r) + 1]);
    for (std::size_t k = from; k < to; ++k) {
      const auto at = static_cast<std::size_t>(next[column(d.equation[k])]++);
      columns.record[at] = static_cast<std::int32_t>(r);
      columns.value[at] = d.value[k];
    }
  }
  return columns;
}

double weight_of(const DESIGN_MTX& design, std::size_t r)
{
  return design.weight.empty() ? 1.0 : std::max(design.weight[r], 0.0);
}

/// The random structures by inner equations: which one an equation belongs to.
struct STRUCTURE_OF {
  std::vector<std::int32_t> structure;  // by inner equation, -1 for none
  std::vector<std::int64_t> equation;   // model equation of an inner one
};

STRUCTURE_OF structures_of(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q)
{
  STRUCTURE_OF of;
  of.structure.assign(static_cast<std::size_t>(q.n), -1);
  of.equation.resize(static_cast<std::size_t>(q.n));
  for (std::int64_t e = 0; e < q.n; ++e) of.equation[static_cast<std::size_t>(q.inner[static_cast<std::size_t>(e)])] = e;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    const std::int64_t first = first_equation(terms, model.terms[t]);
    for (std::int64_t e = first; e < first + structure_size(model, model.terms[t]); ++e) {
      of.structure[static_cast<std::size_t>(q.inner[static_cast<std::size_t>(e)])] = static_cast<std::int32_t>(t);
    }
  }
  return of;
}

/// C0 in inner order with the pattern of C: lower triangle by columns with the diagonal first, the dense block whole.
///
/// Column j gathers the rows of its records, and of the records that R^-1 joins to them, into a dense work vector (Gustavson
/// 1978), so that no element is searched for; the elements of G^-1 join it as zeros.  Values are right where R is one scaled
/// identity; else they are formed in each evaluation.
///   most  elements that C may have, or below 0 for any number; with more it stays unfinished, its n being 0
COEFFICIENTS cross_products(const TERM_TABLE& terms, const VARIANCE_MODEL& model, const INNER_DESIGN& d, const DESIGN_COLUMNS& columns,
                            std::int64_t dense, std::int64_t most, MIXED_EQUATIONS& q)
{
  const std::int64_t n = q.n;
  const STRUCTURE_OF of = structures_of(terms, model, q);
  COEFFICIENTS c;
  c.n = n;
  c.start.assign(static_cast<std::size_t>(n) + 1, 0);
  const std::int64_t sparse = n - dense;
  std::vector<double> work(static_cast<std::size_t>(n), 0.0);
  std::vector<std::int64_t> seen(static_cast<std::size_t>(n), -1);
  std::vector<std::int32_t> rows;
  std::vector<std::int64_t> joined(q.residual.empty() ? 0 : static_cast<std::size_t>(d.design.rows()), -1);
  for (std::int64_t j = 0; j < n; ++j) {
    rows.clear();
    const auto add = [&](std::int32_t i, double value) {
      const auto at = static_cast<std::size_t>(i);
      if (seen[at] != j) {
        seen[at] = j;
        work[at] = 0.0;
        rows.push_back(i);
      }
      work[at] += value;
    };
    const auto add_record = [&](std::size_t r, double wx) {
      const auto end = static_cast<std::size_t>(d.design.start[r + 1]);
      for (auto e = static_cast<std::size_t>(d.design.start[r]); e < end; ++e) {
        if (d.equation[e] >= j) add(d.equation[e], wx * d.value[e]);
      }
    };
    for (std::int64_t i = j; i < (j >= sparse ? n : j + 1); ++i) add(static_cast<std::int32_t>(i), 0.0);
    const auto from = static_cast<std::size_t>(columns.start[static_cast<std::size_t>(j)]);
    const auto to = static_cast<std::size_t>(columns.start[static_cast<std::size_t>(j) + 1]);
    for (std::size_t k = from; k < to; ++k) {
      const auto r = static_cast<std::size_t>(columns.record[k]);
      if (q.residual.empty()) {
        add_record(r, weight_of(d.design, r) * columns.value[k]);
        continue;
      }
      for (auto m = static_cast<std::size_t>(q.residual.start[r]); m < static_cast<std::size_t>(q.residual.start[r + 1]); ++m) {
        const auto s = static_cast<std::size_t>(q.residual.record[m]);
        if (joined[s] == j) continue;
        joined[s] = j;
        add_record(s, 0.0);
      }
    }
    const std::int32_t t = of.structure[static_cast<std::size_t>(j)];
    if (t >= 0 && !model.terms[static_cast<std::size_t>(t)].dropped && !q.random[static_cast<std::size_t>(t)].diagonal()) {
      const std::int64_t first = first_equation(terms, model.terms[static_cast<std::size_t>(t)]);
      PRODUCT_ROWS& product = q.random[static_cast<std::size_t>(t)];
      product.move_to(of.equation[static_cast<std::size_t>(j)] - first);
      product.each([&](std::int64_t f, double) {
        const std::int32_t i = q.inner[static_cast<std::size_t>(first + f)];
        if (i >= j) add(i, 0.0);
      });
    }
    std::sort(rows.begin(), rows.end());
    for (const std::int32_t i : rows) {
      c.row.push_back(i);
      c.value.push_back(work[static_cast<std::size_t>(i)]);
    }
    c.start[static_cast<std::size_t>(j) + 1] = static_cast<std::int64_t>(c.row.size());
    if (most >= 0 && c.start[static_cast<std::size_t>(j) + 1] > most) return {};
  }
  return c;
}

/// The design by records out of that by columns: elimination positions rise within a record.
DESIGN_COLUMNS by_records(const DESIGN_COLUMNS& columns, std::int64_t records)
{
  DESIGN_COLUMNS rows;
  rows.start.assign(static_cast<std::size_t>(records) + 1, 0);
  for (const std::int32_t r : columns.record) ++rows.start[static_cast<std::size_t>(r) + 1];
  for (std::size_t r = 0; r < static_cast<std::size_t>(records); ++r) rows.start[r + 1] += rows.start[r];
  rows.record.resize(columns.record.size());
  rows.value.resize(columns.record.size());
  std::vector<std::int64_t> next(rows.start.begin(), rows.start.end() - 1);
  for (std::size_t p = 0; p + 1 < columns.start.size(); ++p) {
    for (auto k = static_cast<std::size_t>(columns.start[p]); k < static_cast<std::size_t>(columns.start[p + 1]); ++k) {
      const auto at = static_cast<std::size_t>(next[static_cast<std::size_t>(columns.record[k])]++);
      rows.record[at] = static_cast<std::int32_t>(p);
      rows.value[at] = columns.value[k];
    }
  }
  return rows;
}

/// Moves every Lagrangian equation behind the one that it binds, by exchanging the two where the order has them the other way.
void bind_after(const PATTERN& pattern, std::vector<std::int32_t>& order)
{
  if (pattern.bound.empty()) return;
  std::vector<std::int32_t> position(order.size());
  for (std::size_t p = 0; p < order.size(); ++p) position[static_cast<std::size_t>(order[p])] = static_cast<std::int32_t>(p);
  for (const auto& [binding, with] : pattern.bound) {
    std::int32_t& late = position[static_cast<std::size_t>(binding)];
    std::int32_t& early = position[static_cast<std::size_t>(with)];
    if (early < late) continue;
    std::swap(order[static_cast<std::size_t>(late)], order[static_cast<std::size_t>(early)]);
    std::swap(late, early);
  }
}

/// The mean square of the non-zero design values of every random term.
void design_sizes(const TERM_TABLE& terms, MIXED_EQUATIONS& q)
{
  q.mean_square.assign(terms.rows.size(), 1.0);
  for (std::size_t t = 0; t < terms.rows.size(); ++t) {
    const TERM_ROW& term = terms.rows[t];
    if (term.block != Block::random) continue;
    double sum = 0.0;
    double count = 0.0;
    for (std::int64_t e = term.first; e < term.first + term.equations; ++e) {
      const auto p = static_cast<std::size_t>(q.position_of(e));
      for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
        const double x = q.columns.value[k];
        if (x == 0.0) continue;
        sum += x * x;
        count += 1.0;
      }
    }
    if (count > 0.0 && std::isfinite(sum)) q.mean_square[t] = sum / count;
  }
}

/// Whether design and structures together take less memory than C can: known before C is formed where G^-1 alone decides it.
bool products_are_smaller(const FORMED& formed, const DESIGN_MTX& design, std::int64_t n, std::int64_t& most)
{
  constexpr std::int64_t bytes_of_element = 20;  // of C: its value, that of its residual part, its row
  constexpr std::int64_t bytes_by_record = 12;   // of a design value: itself and its equation
  most = bytes_by_record * static_cast<std::int64_t>(design.equation.size()) / bytes_of_element;
  double elements = 0.0;  // of C at least: those of G^-1 and the diagonal
  double structured = 0.0;
  for (const FORMED_TERM& term : formed.terms) {
    double all = 1.0;
    for (const auto& component : term.components) {
      const SYMMETRIC& m = component->inverse();
      all *= m.shape == Shape::identity ? static_cast<double>(m.n) : static_cast<double>(m.stored());
    }
    elements += all;
    structured += static_cast<double>(term.size);
  }
  return elements + std::max(0.0, static_cast<double>(n) - structured) > static_cast<double>(most);
}

}  // namespace

/// W'R0^-1 y and y'R0^-1 y of the shifted response, log-weights and the count of records used.
void take_responses(const DESIGN_MTX& design, MIXED_EQUATIONS& q)
{
  const auto rows = static_cast<std::size_t>(design.rows());
  std::vector<double> y(rows);
  std::vector<std::uint8_t> estimated(rows, 0);
  for (const std::int64_t r : design.mv) estimated[static_cast<std::size_t>(r)] = 1;
  q.y.resize(rows);
  q.records = 0;
  q.y0 = 0.0;
  q.log_weights = 0.0;
  for (std::size_t r = 0; r < rows; ++r) {
    const double w = weight_of(design, r);
    const double shifted = estimated[r] ? 0.0 : design.beside_offset(r) - q.shift;
    q.y0 += w * shifted * shifted;
    y[r] = w * shifted;
    q.y[r] = shifted;
    if (w > 0.0) {
      ++q.records;
      if (w != 1.0) q.log_weights += std::log(w);
    }
  }
  q.mean_square_y = q.records > 0 && q.y0 > 0.0 ? q.y0 / static_cast<double>(q.records) : 1.0;
  q.r0.assign(static_cast<std::size_t>(q.n), 0.0);
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) {
    double sum = 0.0;
    for (auto k = static_cast<std::size_t>(q.columns.start[p]); k < static_cast<std::size_t>(q.columns.start[p + 1]); ++k) {
      sum += q.columns.value[k] * y[static_cast<std::size_t>(q.columns.record[k])];
    }
    q.r0[p] = sum;
  }
}

void SETUP_EQUATIONS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, const DESIGN_MTX& design,
                     const VARIANCE_MODEL& model, const FORMED& formed, MIXED_EQUATIONS& q)
{
  const Frame here{eh, __func__};
  q.n = terms.equations;
  std::int64_t dense = 0;
  std::int64_t dense_fixed = 0;
  L_PLACE_TERMS(eh, options, terms, model, formed, q, dense, dense_fixed);
  if (eh.terminate()) return;
  q.dense = dense;
  choose_shifts(terms, design, dense_fixed, q);
  lay_out_residual(design, formed, q.residual);
  const INNER_DESIGN d = inner_design(design, q);
  std::int64_t most = -1;
  if (q.solving != Solving::by_products || !products_are_smaller(formed, design, q.n, most)) {
    q.random.reserve(formed.terms.size());
    for (const FORMED_TERM& term : formed.terms) q.random.emplace_back(term.components).keep_zeros(true);
    q.columns = by_columns(d, q.n, nullptr);
    COEFFICIENTS inner = cross_products(terms, model, d, q.columns, dense, most, q);
    for (PRODUCT_ROWS& rows : q.random) rows.keep_zeros(false);
    if (q.solving == Solving::by_factor) {
      q.columns = {};
      {
        PATTERN pattern = pattern_of(inner, dense);
        for (const auto& [binding, with] : bound_equations(terms, model, formed)) {
          pattern.bound.emplace_back(q.inner[static_cast<std::size_t>(binding)], q.inner[static_cast<std::size_t>(with)]);
        }
        std::vector<std::int32_t> order;
        if (is_order_of(q.given_order, q.n, dense)) {
          order = std::move(q.given_order.order);
          eh.note("Equation order retrieved from .veo file.");
        } else {
          REORDER_MATRIX(eh, pattern, options(Slot::isort), order);
        }
        q.given_order = {};
        if (eh.terminate()) return;
        bind_after(pattern, order);
        SYMBOLICABS2(eh, pattern, order, q.factor);
        if (eh.terminate()) return;
      }
      q.c = permute(inner, q.factor.position);
      inner = {};
      q.columns = by_columns(d, q.n, &q.factor.position);
      q.position.resize(static_cast<std::size_t>(q.n));
      for (std::size_t e = 0; e < q.position.size(); ++e) {
        q.position[e] = q.factor.position[static_cast<std::size_t>(q.inner[e])];
      }
    } else if (inner.n > 0 || q.n == 0) {
      q.solving = Solving::by_sweeps;
      q.c = std::move(inner);
    }
    q.c0 = q.c.value;
  }
  if (q.solving != Solving::by_factor) {
    q.position = q.inner;
    if (q.solving == Solving::by_products) q.random = {};
    if (q.columns.start.empty()) q.columns = by_columns(d, q.n, nullptr);
  }
  if (!q.residual.empty() || q.solving != Solving::by_factor) q.rows = by_records(q.columns, design.rows());
  take_responses(design, q);
  design_sizes(terms, q);
  warn_of_null_levels(eh, terms, model, formed, q);
  form_section_products(design, formed, q);
}

}  // namespace tolvan
