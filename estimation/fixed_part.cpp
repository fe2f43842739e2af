// What is fixed in the equations: which of it is singular by the design alone.  Routine: ABSORB_FIXED.
#include "estimation/fixed_part.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "base/text.h"
#include "estimation/order_equations.h"

namespace tolvan {
namespace {

constexpr double nothing = 1e-12;  // of the largest element of a vector

std::size_t at(const std::vector<std::int64_t>& start, std::size_t i) { return static_cast<std::size_t>(start[i]); }

/// The lower triangle of a component's inverse by columns, without scale, levels numbered by `place`.
COEFFICIENTS triangle_of(const SYMMETRIC& m, const std::vector<std::int32_t>& place)
{
  COEFFICIENTS c;
  c.n = m.n;
  c.start.push_back(0);
  COMPONENT_ROWS lines(m);
  for (std::int64_t j = 0; j < m.n; ++j) {
    c.row.push_back(static_cast<std::int32_t>(j));
    c.value.push_back(0.0);
    const std::size_t diagonal = c.value.size() - 1;
    const COMPONENT_LINE& line = lines.line(j);
    for (std::int64_t k = 0; k < line.count; ++k) {
      if (line.column[k] == j) c.value[diagonal] = line.value[k];
      if (line.column[k] <= j || line.value[k] == 0.0) continue;
      c.row.push_back(line.column[k]);
      c.value.push_back(line.value[k]);
    }
    c.start.push_back(static_cast<std::int64_t>(c.row.size()));
  }
  return permute(c, place);
}

/// L_FACTORISE: orders and absorbs C, the last `dense` equations as they are.
void L_FACTORISE(ERROR_HANDLER& eh, const COEFFICIENTS& c, std::int64_t dense, const ABSORB_CONTROL& control, FACTOR& factor,
                 ABSORBED& absorbed)
{
  const Frame here{eh, __func__};
  {
    const PATTERN pattern = pattern_of(c, dense);
    std::vector<std::int32_t> order;
    REORDER_MATRIX(eh, pattern, 0, order);
    if (eh.terminate()) return;
    SYMBOLICABS2(eh, pattern, order, factor);
    if (eh.terminate()) return;
  }
  K4MXXAIL(eh, permute(c, factor.position), control, factor, absorbed);
}

ABSORB_CONTROL control_of(const FIT_WORK& work, int threads)
{
  ABSORB_CONTROL control;
  control.t0 = work.tolerance;
  control.default_tolerance = work.default_tolerance;
  control.floor = 0.0;
  control.threads = threads;
  control.cancel = work.cancel;
  return control;
}

/// The dimensions without a variance of all structures, in their equations, a column each.
struct ABSENT_COLUMNS {
  std::vector<std::int32_t> own;          // position of the equation that a column goes with
  std::vector<std::int64_t> start;        // by position: the columns that have a part in it; empty when there are none
  std::vector<std::int32_t> column;
  std::vector<double> value;
};

/// L_FIND_COLUMNS: a basis of the product's null space: for each component c the combinations of its dimensions with all levels of
/// the components behind it, and with those levels of the ones before it that no dimension of theirs is named by.
void L_FIND_COLUMNS(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
                    ABSENT_COLUMNS& out)
{
  const Frame here{eh, __func__};
  struct ELEMENT {
    std::int32_t position, column;
    double value;
  };
  std::vector<ELEMENT> elements;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    const COMPONENTS& components = ev.formed.terms[t].components;
    const std::int64_t first = first_equation(in.terms, model.terms[t]);
    std::vector<std::vector<std::uint8_t>> names(components.size());  // by level: a dimension of the component goes with it
    for (std::size_t c = 0; c < components.size(); ++c) {
      const std::int64_t n = components[c]->inverse().n;
      names[c].assign(static_cast<std::size_t>(n), 0);
      if (components[c]->counted() == n) continue;
      const AINV_MTX* matrix = model.rows[static_cast<std::size_t>(model.terms[t].first_row) + c].matrix;
      ABSENT_DIMENSIONS absent;
      find_absent_dimensions(eh, *components[c], matrix != nullptr ? matrix->groups : 0, absent);
      if (eh.terminate()) return;
      for (const std::int32_t level : absent.own) names[c][static_cast<std::size_t>(level)] = 1;
      const PRODUCT_BLOCK block = block_of(components, c);
      for (std::int64_t o = 0; o < block.outer; ++o) {
        bool named = false;
        for (std::int64_t k = static_cast<std::int64_t>(c) - 1, rest = o; k >= 0; --k) {
          const std::int64_t size = components[static_cast<std::size_t>(k)]->inverse().n;
          named = named || names[static_cast<std::size_t>(k)][static_cast<std::size_t>(rest % size)] != 0;
          rest /= size;
        }
        if (named) continue;
        for (std::size_t d = 0; d < absent.own.size(); ++d) {
          for (std::int64_t i = 0; i < block.inner; ++i) {
            const auto position = [&](std::int32_t level) {
              return static_cast<std::int32_t>(q.position_of(first + (o * n + level) * block.inner + i));
            };
            const auto column = static_cast<std::int32_t>(out.own.size());
            out.own.push_back(position(absent.own[d]));
            for (std::size_t k = at(absent.start, d); k < at(absent.start, d + 1); ++k) {
              const std::int32_t p = position(absent.level[k]);
              const auto of = static_cast<std::size_t>(p);
              if (q.columns.start[of] < q.columns.start[of + 1]) elements.push_back({p, column, absent.value[k]});
            }
          }
        }
      }
    }
  }
  if (out.own.empty()) return;
  out.start.assign(static_cast<std::size_t>(q.n) + 1, 0);
  for (const ELEMENT& e : elements) ++out.start[static_cast<std::size_t>(e.position) + 1];
  for (std::size_t p = 0; p < static_cast<std::size_t>(q.n); ++p) out.start[p + 1] += out.start[p];
  out.column.resize(elements.size());
  out.value.resize(elements.size());
  std::vector<std::int64_t> next(out.start.begin(), out.start.end() - 1);
  for (const ELEMENT& e : elements) {
    const auto to = static_cast<std::size_t>(next[static_cast<std::size_t>(e.position)]++);
    out.column[to] = e.column;
    out.value[to] = e.value;
  }
}

/// The cross-products of what is fixed, by records: sparse fixed effects, dimensions without a variance, dense fixed effects.
class CROSS_PRODUCTS {
 public:
  CROSS_PRODUCTS(const DESIGN_MTX& design, const MIXED_EQUATIONS& q, const ABSENT_COLUMNS& absent) : design_(design), q_(q), absent_(absent)
  {
    const auto n = static_cast<std::size_t>(q.n);
    std::vector<std::uint8_t> fixed(n, 0);
    for (std::int64_t e = 0; e < q.n; ++e) fixed[static_cast<std::size_t>(q.position_of(e))] = q.fixed[static_cast<std::size_t>(e)];
    number_.assign(n, -1);
    const auto sparse = n - static_cast<std::size_t>(q.dense);
    const auto take = [&](std::size_t from, std::size_t to) {
      for (std::size_t p = from; p < to; ++p) {
        if (!fixed[p]) continue;
        number_[p] = static_cast<std::int32_t>(own_.size());
        own_.push_back(static_cast<std::int32_t>(p));
      }
    };
    take(0, sparse);
    first_absent_ = std::ssize(own_);
    own_.insert(own_.end(), absent.own.begin(), absent.own.end());
    end_absent_ = std::ssize(own_);
    take(sparse, n);
    if (!absent.own.empty()) by_absent_columns();
  }
  std::int64_t count() const { return std::ssize(own_); }
  /// Equations at the end that are taken as dense; dimensions of structures reach over many records.
  std::int64_t dense() const { return absent_.own.empty() ? count() - end_absent_ : count() - first_absent_; }
  /// The position of the equation of each row.
  const std::vector<std::int32_t>& own() const { return own_; }

  COEFFICIENTS form() const
  {
    COEFFICIENTS c;
    c.n = count();
    c.start.push_back(0);
    std::vector<double> sum(own_.size(), 0.0);
    std::vector<std::int32_t> seen(own_.size(), -1);
    std::vector<std::int32_t> rows;
    for (std::int32_t j = 0; j < c.n; ++j) {
      rows.clear();
      const auto add = [&](std::int32_t i, double value) {
        if (seen[static_cast<std::size_t>(i)] != j) {
          seen[static_cast<std::size_t>(i)] = j;
          sum[static_cast<std::size_t>(i)] = 0.0;
          rows.push_back(i);
        }
        sum[static_cast<std::size_t>(i)] += value;
      };
      add(j, 0.0);
      if (j >= c.n - dense()) {
        for (std::int32_t i = j + 1; i < c.n; ++i) add(i, 0.0);
      }
      const DESIGN_COLUMNS& columns = is_absent(j) ? by_column_ : q_.columns;
      const auto column = static_cast<std::size_t>(is_absent(j) ? j - first_absent_ : own_[static_cast<std::size_t>(j)]);
      for (std::size_t k = at(columns.start, column); k < at(columns.start, column + 1); ++k) {
        const auto r = static_cast<std::size_t>(columns.record[k]);
        const double w = design_.weight.empty() ? 1.0 : std::max(design_.weight[r], 0.0);
        const double wx = w * columns.value[k];
        for (std::size_t e = at(q_.rows.start, r + 1); e-- > at(q_.rows.start, r);) {
          const auto p = static_cast<std::size_t>(q_.rows.record[e]);
          if (number_[p] >= j) add(number_[p], wx * q_.rows.value[e]);
          if (absent_.own.empty()) continue;
          for (std::size_t d = at(absent_.start, p); d < at(absent_.start, p + 1); ++d) {
            const auto i = static_cast<std::int32_t>(first_absent_) + absent_.column[d];
            if (i >= j) add(i, wx * q_.rows.value[e] * absent_.value[d]);
          }
        }
      }
      std::sort(rows.begin(), rows.end());
      for (const std::int32_t i : rows) {
        c.row.push_back(i);
        c.value.push_back(sum[static_cast<std::size_t>(i)]);
      }
      c.start.push_back(static_cast<std::int64_t>(c.row.size()));
    }
    return c;
  }

 private:
  bool is_absent(std::int64_t j) const { return j >= first_absent_ && j < end_absent_; }

  /// W N by columns; a record may stand in a column more than once.
  void by_absent_columns()
  {
    const auto columns = static_cast<std::size_t>(end_absent_ - first_absent_);
    const auto each = [&](auto&& f) {
      for (std::size_t r = 0; r + 1 < q_.rows.start.size(); ++r) {
        for (std::size_t e = at(q_.rows.start, r); e < at(q_.rows.start, r + 1); ++e) {
          const auto p = static_cast<std::size_t>(q_.rows.record[e]);
          for (std::size_t d = at(absent_.start, p); d < at(absent_.start, p + 1); ++d) {
            f(r, static_cast<std::size_t>(absent_.column[d]), q_.rows.value[e] * absent_.value[d]);
          }
        }
      }
    };
    by_column_.start.assign(columns + 1, 0);
    each([&](std::size_t, std::size_t column, double) { ++by_column_.start[column + 1]; });
    std::partial_sum(by_column_.start.begin(), by_column_.start.end(), by_column_.start.begin());
    by_column_.record.resize(at(by_column_.start, columns));
    by_column_.value.resize(by_column_.record.size());
    std::vector<std::int64_t> next(by_column_.start.begin(), by_column_.start.end() - 1);
    each([&](std::size_t r, std::size_t column, double x) {
      const auto to = static_cast<std::size_t>(next[column]++);
      by_column_.record[to] = static_cast<std::int32_t>(r);
      by_column_.value[to] = x;
    });
  }

  const DESIGN_MTX& design_;
  const MIXED_EQUATIONS& q_;
  const ABSENT_COLUMNS& absent_;
  std::vector<std::int32_t> own_;     // position of the equation of each row
  std::vector<std::int32_t> number_;  // of a fixed equation among them, by position; else -1
  std::int64_t first_absent_ = 0, end_absent_ = 0;
  DESIGN_COLUMNS by_column_;          // W N
};

}  // namespace

void find_absent_dimensions(ERROR_HANDLER& eh, const COMPONENT_MATRIX& component, std::int64_t groups, ABSENT_DIMENSIONS& absent)
{
  const Frame here{eh, __func__};
  const SYMMETRIC& inverse = component.inverse();
  const auto n = static_cast<std::size_t>(inverse.n);
  const std::int64_t expected = inverse.n - component.counted();
  absent = {};
  const auto name = [&](std::int32_t level) {
    absent.own.push_back(level);
    absent.level.push_back(level);
    absent.value.push_back(1.0);
  };
  const auto close = [&] { absent.start.push_back(static_cast<std::int64_t>(absent.level.size())); };

  // Levels without any element, groups last.
  std::vector<std::int32_t> place(n), level_at;
  std::vector<std::uint8_t> empty(n, 1);
  COMPONENT_ROWS lines(inverse);
  for (std::size_t i = 0; i < n; ++i) {
    const COMPONENT_LINE& line = lines.line(static_cast<std::int64_t>(i));
    empty[i] = std::all_of(line.value, line.value + line.count, [](double x) { return x == 0.0; }) ? 1 : 0;
    if (empty[i]) {
      name(static_cast<std::int32_t>(i));
      close();
    }
  }
  if (std::ssize(absent.own) == expected) return;
  for (const bool last : {false, true}) {
    for (std::size_t i = 0; i < n; ++i) {
      if ((static_cast<std::int64_t>(i) < groups) != last) continue;
      place[i] = static_cast<std::int32_t>(level_at.size());
      level_at.push_back(static_cast<std::int32_t>(i));
    }
  }
  const COEFFICIENTS c = triangle_of(inverse, place);
  FACTOR factor;
  ABSORBED absorbed;
  ABSORB_CONTROL control;
  control.floor = 0.0;
  L_FACTORISE(eh, c, groups, control, factor, absorbed);
  if (eh.terminate()) return;

  // A singular pivot s names the vector e_s - C_rr^-1 c_rs, r being what is not singular.
  std::vector<double> b(n);
  for (std::size_t s = 0; s < n; ++s) {
    const auto p = static_cast<std::size_t>(factor.position[s]);
    const std::int32_t own = level_at[s];
    if (factor.reciprocal[p] != 0.0 || empty[static_cast<std::size_t>(own)]) continue;
    std::fill(b.begin(), b.end(), 0.0);
    const COMPONENT_LINE& line = lines.line(own);
    for (std::int64_t k = 0; k < line.count; ++k) {
      b[static_cast<std::size_t>(factor.position[static_cast<std::size_t>(place[static_cast<std::size_t>(line.column[k])])])] = -line.value[k];
    }
    SMIFWD(factor, b.data(), 1, 1);
    SMIBCK(factor, b.data(), 1, 1);
    name(own);
    for (std::size_t i = 0; i < n; ++i) {
      const double v = b[static_cast<std::size_t>(factor.position[i])];
      if (i == s || std::fabs(v) <= nothing) continue;
      absent.level.push_back(level_at[i]);
      absent.value.push_back(v);
    }
    close();
  }
  if (std::ssize(absent.own) == expected) return;
  eh.not_implemented(text("solving by iteration with a matrix that lacks ", expected, " dimensions by its determinant and ",
                          std::ssize(absent.own), " by its pivots is not implemented, use !BLUP 2"));
}

void ABSORB_FIXED(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q, const EVALUATION& ev,
                  int threads, const FIT_WORK& work, std::vector<std::uint8_t>& left_out, ABSORBED& absorbed)
{
  const Frame here{eh, __func__};
  ABSENT_COLUMNS absent;
  L_FIND_COLUMNS(eh, in, model, q, ev, absent);
  if (eh.terminate()) return;
  const CROSS_PRODUCTS products(in.design, q, absent);
  if (products.count() == 0) return;
  FACTOR factor;
  L_FACTORISE(eh, products.form(), products.dense(), control_of(work, threads), factor, absorbed);
  if (eh.terminate() || absorbed.cancelled) return;
  for (std::size_t j = 0; j < products.own().size(); ++j) {
    const bool singular = factor.reciprocal[static_cast<std::size_t>(factor.position[j])] == 0.0;
    if (singular) left_out[static_cast<std::size_t>(products.own()[j])] = 1;
  }
}

}  // namespace tolvan
