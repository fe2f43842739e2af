// Effects that others determine: Lagrangian rows of structures, worked out of the equations.
#include "estimation/bound_effects.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr double nothing_left = 1e-10;  // of a Lagrangian row's largest element: it repeats others
constexpr double least_own = 1e-6;      // of the same: a factor's level has a 1 there beside loadings of any size

/// The elements of the Lagrangian rows among the other levels, a row each; false when they meet each other.
bool read_rows(const SYMMETRIC& inverse, const std::vector<std::int32_t>& rows, std::vector<std::vector<std::pair<std::int32_t, double>>>& out)
{
  COMPONENT_ROWS lines(inverse);
  for (const std::int32_t row : rows) {
    std::vector<std::pair<std::int32_t, double>>& elements = out.emplace_back();
    const COMPONENT_LINE& line = lines.line(row);
    for (std::int64_t k = 0; k < line.count; ++k) {
      if (line.value[k] == 0.0) continue;
      if (std::binary_search(rows.begin(), rows.end(), line.column[k])) {
        if (line.column[k] == row) continue;
        return false;
      }
      elements.emplace_back(line.column[k], inverse.scale * line.value[k]);
    }
  }
  return true;
}

/// Gauss-Jordan elimination of the rows, bound levels chosen by size: each row ends with a level that no other has.
void reduce_rows(std::int64_t n, const std::vector<std::vector<std::pair<std::int32_t, double>>>& elements, BOUND_LEVELS& bound)
{
  const auto m = static_cast<std::int64_t>(elements.size());
  const std::int64_t width = n + m;  // what makes the reduced rows of the given ones stands behind them
  std::vector<double> a(static_cast<std::size_t>(m * width), 0.0);
  std::vector<std::int64_t> level(static_cast<std::size_t>(m), -1);
  for (std::int64_t r = 0; r < m; ++r) {
    for (const auto& [column, value] : elements[static_cast<std::size_t>(r)]) a[static_cast<std::size_t>(r * width + column)] = value;
    a[static_cast<std::size_t>(r * width + n + r)] = 1.0;
  }
  for (std::int64_t r = 0; r < m; ++r) {
    double* row = a.data() + r * width;
    double largest = 0.0;
    for (const auto& element : elements[static_cast<std::size_t>(r)]) largest = std::max(largest, std::fabs(element.second));
    const double* pivot = std::max_element(row, row + n, [](double x, double y) { return std::fabs(x) < std::fabs(y); });
    if (!(std::fabs(*pivot) > nothing_left * largest)) continue;
    const std::int64_t at = pivot - row;
    level[static_cast<std::size_t>(r)] = at;
    const double by = 1.0 / *pivot;
    for (std::int64_t k = 0; k < width; ++k) row[k] *= by;
    row[at] = 1.0;
    for (std::int64_t o = 0; o < m; ++o) {
      double* other = a.data() + o * width;
      const double f = other[at];
      if (o == r || f == 0.0) continue;
      for (std::int64_t k = 0; k < width; ++k) other[k] -= f * row[k];
      other[at] = 0.0;
    }
  }
  for (std::int64_t r = 0; r < m; ++r) {
    const std::int64_t own = level[static_cast<std::size_t>(r)];
    if (own < 0) continue;
    const double* row = a.data() + r * width;
    bound.level.push_back(static_cast<std::int32_t>(own));
    for (std::int64_t k = 0; k < n; ++k) {
      if (k == own || std::fabs(row[k]) <= nothing_left) continue;
      bound.of.push_back(static_cast<std::int32_t>(k));
      bound.by.push_back(-row[k]);
    }
    bound.start.push_back(static_cast<std::int64_t>(bound.of.size()));
    bound.to_rows.insert(bound.to_rows.end(), row + n, row + width);
  }
}

/// Whether every row has a level that no other row has: nothing to reduce then.
bool take_as_they_are(const COMPONENT_MATRIX& component, const std::vector<std::vector<std::pair<std::int32_t, double>>>& elements,
                      BOUND_LEVELS& bound)
{
  const std::size_t m = elements.size();
  std::vector<std::int32_t> met(static_cast<std::size_t>(component.inverse().n), 0);
  for (const auto& row : elements) {
    for (const auto& element : row) ++met[static_cast<std::size_t>(element.first)];
  }
  std::vector<std::pair<std::int32_t, double>> own(m, {-1, 0.0});
  for (std::size_t r = 0; r < m; ++r) {
    for (const auto& [column, value] : elements[r]) {
      if (met[static_cast<std::size_t>(column)] == 1 && std::fabs(value) > std::fabs(own[r].second)) own[r] = {column, value};
    }
    double largest = 0.0;
    for (const auto& element : elements[r]) largest = std::max(largest, std::fabs(element.second));
    if (!elements[r].empty() && !(std::fabs(own[r].second) > least_own * largest)) return false;
  }
  for (std::size_t r = 0; r < m; ++r) {
    if (elements[r].empty()) continue;
    bound.level.push_back(own[r].first);
    for (const auto& [column, value] : elements[r]) {
      if (column == own[r].first) continue;
      bound.of.push_back(column);
      bound.by.push_back(-value / own[r].second);
    }
    bound.start.push_back(static_cast<std::int64_t>(bound.of.size()));
    const std::size_t from = bound.to_rows.size();
    bound.to_rows.resize(from + m, 0.0);
    bound.to_rows[from + r] = 1.0 / own[r].second;
  }
  return true;
}

/// The diagonal of T'AT of one component, with 0 for bound levels and Lagrangian rows.
std::vector<double> reduced_diagonal(const SYMMETRIC& inverse, const BOUND_LEVELS& bound)
{
  const auto n = static_cast<std::size_t>(inverse.n);
  std::vector<double> d = diagonal_of(inverse);
  std::vector<std::vector<std::pair<std::int32_t, double>>> part(n);  // of a level: the bound ones it has a part in
  for (std::size_t k = 0; k < bound.level.size(); ++k) {
    for (auto e = static_cast<std::size_t>(bound.start[k]); e < static_cast<std::size_t>(bound.start[k + 1]); ++e) {
      part[static_cast<std::size_t>(bound.of[e])].emplace_back(bound.level[k], bound.by[e]);
    }
  }
  COMPONENT_ROWS lines(inverse);
  std::vector<double> t(n, 0.0);
  for (std::size_t j = 0; j < n; ++j) {
    if (part[j].empty()) continue;
    part[j].emplace_back(static_cast<std::int32_t>(j), 1.0);
    for (const auto& [level, by] : part[j]) t[static_cast<std::size_t>(level)] = by;
    double sum = 0.0;
    for (const auto& [level, by] : part[j]) {
      const COMPONENT_LINE& line = lines.line(level);
      for (std::int64_t k = 0; k < line.count; ++k) sum += by * line.value[k] * t[static_cast<std::size_t>(line.column[k])];
    }
    d[j] = sum * inverse.scale;
    for (const auto& [level, by] : part[j]) t[static_cast<std::size_t>(level)] = 0.0;
  }
  for (const std::int32_t level : bound.level) d[static_cast<std::size_t>(level)] = 0.0;
  for (const std::int32_t row : bound.rows) d[static_cast<std::size_t>(row)] = 0.0;
  return d;
}

}  // namespace

std::vector<double> diagonal_of(const SYMMETRIC& m)
{
  std::vector<double> d(static_cast<std::size_t>(m.n), m.scale);
  for (std::int64_t i = 0; i < m.n && m.shape != Shape::identity; ++i) {
    const std::int64_t at = m.shape == Shape::dense ? i + i * m.n : m.shape == Shape::sparse ? m.start[i] : i;
    d[static_cast<std::size_t>(i)] *= m.values[at];
  }
  return d;
}

std::vector<double> product_of_diagonals(const std::vector<std::vector<double>>& diagonals)
{
  std::vector<double> product(1, 1.0);
  for (const std::vector<double>& d : diagonals) {
    std::vector<double> larger;
    larger.reserve(product.size() * d.size());
    for (const double outer : product) {
      for (const double x : d) larger.push_back(outer * x);
    }
    product = std::move(larger);
  }
  return product;
}

bool find_bound_levels(const COMPONENT_MATRIX& component, BOUND_LEVELS& bound)
{
  bound = {};
  for (const auto& binding : component.lagrangian()) bound.rows.push_back(static_cast<std::int32_t>(binding.first));
  std::sort(bound.rows.begin(), bound.rows.end());
  std::vector<std::vector<std::pair<std::int32_t, double>>> elements;
  if (!read_rows(component.inverse(), bound.rows, elements)) return false;
  if (!take_as_they_are(component, elements, bound)) reduce_rows(component.inverse().n, elements, bound);
  return true;
}

void BOUND_EFFECTS::find(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& q,
                         const EVALUATION& ev)
{
  q_ = &q;
  terms_.clear();
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    TERM term{t, first_equation(in.terms, model.terms[t]), &ev.formed.terms[t].components, {}, {}};
    const COMPONENTS& all = *term.all;
    std::vector<std::size_t> absent;  // components with dimensions that have no variance
    for (std::size_t c = 0; c < all.size(); ++c) {
      if (all[c]->counted() < all[c]->inverse().n) absent.push_back(c);
      if (all[c]->lagrangian().empty()) continue;
      const PRODUCT_BLOCK block = block_of(all, c);
      COMPONENT& own = term.components.emplace_back(COMPONENT{c, block.outer, all[c]->inverse().n, block.inner, {}});
      if (!find_bound_levels(*all[c], own.bound)) {
        eh.not_implemented("solving by iteration with Lagrangian rows that meet each other is not implemented, use !BLUP 2");
        return;
      }
    }
    if (term.components.empty()) continue;
    const std::size_t bound = term.components.front().number;
    const bool alone = term.components.size() == 1 && std::all_of(absent.begin(), absent.end(), [&](std::size_t c) { return c == bound; });
    if (!absent.empty() && !alone) {
      if (all.size() != 2 || term.components.size() != 1 || absent.size() != 1) {
        eh.not_implemented(text("solving by iteration with a singular structure of several components beside fixed groups, in ",
                                in.terms.rows[static_cast<std::size_t>(model.terms[t].term)].name, ", is not implemented, use !BLUP 2"));
        return;
      }
      const std::size_t other = absent.front();
      const AINV_MTX* matrix = model.rows[static_cast<std::size_t>(model.terms[t].first_row) + other].matrix;
      find_absent_dimensions(eh, *all[other], matrix != nullptr ? matrix->groups : 0, term.absent);
      if (eh.terminate()) return;
      term.is_own.assign(static_cast<std::size_t>(all[other]->inverse().n), 0);
      for (const std::int32_t level : term.absent.own) term.is_own[static_cast<std::size_t>(level)] = 1;
    }
    terms_.push_back(std::move(term));
  }
}

/// The position of a level of the component at a cell of the others' levels.
std::size_t BOUND_EFFECTS::position(const TERM& term, const COMPONENT& c, std::int32_t level, std::size_t cell) const
{
  const auto o = static_cast<std::int64_t>(cell) / c.inner;
  const auto i = static_cast<std::int64_t>(cell) % c.inner;
  return static_cast<std::size_t>(q_->position_of(term.first + (o * c.n + level) * c.inner + i));
}

/// Calls f(at, cell) for every combination of the others' levels, at(level) being the position of a level.
template <class F>
void BOUND_EFFECTS::each_cell(const TERM& term, const COMPONENT& c, F&& f) const
{
  for (std::size_t cell = 0; cell < static_cast<std::size_t>(c.outer * c.inner); ++cell) {
    f([&, cell](std::int32_t level) { return position(term, c, level, cell); }, cell);
  }
}

/// Calls f(to, from, v) for the free part of bound effects: u(to) has v u(from) in it.
template <class F>
void BOUND_EFFECTS::each_free_part(const TERM& term, F&& f) const
{
  const COMPONENT& c = term.components.front();
  for (std::size_t d = 0; d < term.absent.own.size(); ++d) {
    for (auto k = static_cast<std::size_t>(term.absent.start[d]); k < static_cast<std::size_t>(term.absent.start[d + 1]); ++k) {
      if (term.absent.level[k] == term.absent.own[d]) continue;
      for (const std::int32_t level : c.bound.level) {
        f(position(term, c, level, static_cast<std::size_t>(term.absent.level[k])),
          position(term, c, level, static_cast<std::size_t>(term.absent.own[d])), term.absent.value[k]);
      }
    }
  }
}

void BOUND_EFFECTS::spread(double* x) const
{
  for (const TERM& term : terms_) {
    for (const COMPONENT& c : term.components) {
      const BOUND_LEVELS& b = c.bound;
      each_cell(term, c, [&](const auto& at, std::size_t cell) {
        for (std::size_t k = 0; k < b.level.size() && !term.free_at(cell); ++k) {
          double sum = 0.0;
          for (auto e = static_cast<std::size_t>(b.start[k]); e < static_cast<std::size_t>(b.start[k + 1]); ++e) sum += b.by[e] * x[at(b.of[e])];
          x[at(b.level[k])] = sum;
        }
      });
    }
    each_free_part(term, [x](std::size_t to, std::size_t from, double v) { x[to] += v * x[from]; });
  }
}

void BOUND_EFFECTS::gather(double* y) const
{
  for (const TERM& term : terms_) {
    each_free_part(term, [y](std::size_t to, std::size_t from, double v) { y[from] += v * y[to]; });
    for (auto c = term.components.rbegin(); c != term.components.rend(); ++c) {
      const BOUND_LEVELS& b = c->bound;
      each_cell(term, *c, [&](const auto& at, std::size_t cell) {
        for (std::size_t k = 0; k < b.level.size() && !term.free_at(cell); ++k) {
          double& own = y[at(b.level[k])];
          for (auto e = static_cast<std::size_t>(b.start[k]); e < static_cast<std::size_t>(b.start[k + 1]); ++e) y[at(b.of[e])] += b.by[e] * own;
          own = 0.0;
        }
        for (const std::int32_t row : b.rows) y[at(row)] = 0.0;
      });
    }
  }
}

void BOUND_EFFECTS::diagonal(std::vector<double>& d) const
{
  for (const TERM& term : terms_) {
    std::vector<std::vector<double>> diagonals;
    for (const auto& component : *term.all) diagonals.push_back(diagonal_of(component->inverse()));
    // A record has a part in one level, as a rule: then this is exact.
    each_free_part(term, [&d](std::size_t to, std::size_t from, double v) { d[from] += v * v * d[to]; });
    for (auto c = term.components.rbegin(); c != term.components.rend(); ++c) {
      const BOUND_LEVELS& b = c->bound;
      diagonals[c->number] = reduced_diagonal((*term.all)[c->number]->inverse(), b);
      each_cell(term, *c, [&](const auto& at, std::size_t cell) {
        for (std::size_t k = 0; k < b.level.size() && !term.free_at(cell); ++k) {
          double& own = d[at(b.level[k])];
          for (auto e = static_cast<std::size_t>(b.start[k]); e < static_cast<std::size_t>(b.start[k + 1]); ++e) d[at(b.of[e])] += b.by[e] * b.by[e] * own;
          own = 0.0;
        }
        for (const std::int32_t row : b.rows) d[at(row)] = 0.0;
      });
    }
    scatter_effects(*q_, term.first, product_of_diagonals(diagonals), d.data());
  }
}

bool BOUND_EFFECTS::has(std::size_t structure) const
{
  return std::any_of(terms_.begin(), terms_.end(), [structure](const TERM& t) { return t.structure == structure; });
}

void BOUND_EFFECTS::mark(std::vector<std::uint8_t>& marked) const
{
  for (const TERM& term : terms_) {
    for (const COMPONENT& c : term.components) {
      each_cell(term, c, [&](const auto& at, std::size_t) {
        for (const std::int32_t level : c.bound.level) marked[at(level)] = 1;
        for (const std::int32_t row : c.bound.rows) marked[at(row)] = 1;
      });
    }
  }
}

// The equations of the bound levels say (S^-1 x B') m = left, S being the product of the other components: with B reduced to a
// unit matrix there, B'^-1 left = to_rows left, and S^-1 y = to_rows left is solved for each Lagrangian row's y.
bool BOUND_EFFECTS::multipliers(const std::vector<double>& left, const SOLVE& solve, std::vector<double>& x) const
{
  for (const TERM& term : terms_) {
    const COMPONENT& c = term.components.front();
    if (term.components.size() > 1) {
      for (const COMPONENT& each : term.components) {
        each_cell(term, each, [&](const auto& at, std::size_t) {
          for (const std::int32_t row : each.bound.rows) x[at(row)] = no_value;
        });
      }
      continue;
    }
    const BOUND_LEVELS& b = c.bound;
    const auto size = static_cast<std::size_t>(c.outer * c.inner);
    std::vector<std::vector<double>> others;
    for (std::size_t k = 0; k < term.all->size(); ++k) {
      others.push_back(k == c.number ? std::vector<double>(1, 1.0) : diagonal_of((*term.all)[k]->inverse()));
    }
    std::vector<double> d = product_of_diagonals(others);
    for (std::size_t cell = 0; cell < size; ++cell) {
      if (term.free_at(cell)) d[cell] = 0.0;  // no multiplier is needed there
    }
    std::vector<double> buffer(size);
    const auto multiply = [&](const double* from, double* to) {
      std::copy(from, from + size, to);
      std::int64_t outer = 1;
      for (std::size_t k = 0; k < term.all->size(); ++k) {
        if (k == c.number) continue;
        const std::int64_t n = (*term.all)[k]->inverse().n;
        std::copy(to, to + size, buffer.data());
        (*term.all)[k]->apply_inverse(buffer.data(), to, outer, static_cast<std::int64_t>(size) / (outer * n));
        outer *= n;
      }
    };
    std::vector<double> force(size), y;
    for (std::size_t r = 0; r < b.rows.size(); ++r) {
      each_cell(term, c, [&](const auto& at, std::size_t cell) {
        double sum = 0.0;
        for (std::size_t k = 0; k < b.level.size(); ++k) sum += b.to_rows[r + k * b.rows.size()] * left[at(b.level[k])];
        force[cell] = sum;
      });
      if (term.all->size() == 1) {
        y = force;
      } else if (!solve(d, multiply, force, y)) {
        return false;
      }
      each_cell(term, c, [&](const auto& at, std::size_t cell) { x[at(b.rows[r])] = y[cell]; });
    }
  }
  return true;
}

}  // namespace tolvan
