// The EM family of updates.  Routines: K4MEMV, K4MEMU, K4MEMP, K4MEMM.
#include "estimation/em_updates.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"
#include "base/text.h"
#include "varstruct/followers.h"

namespace tolvan {
namespace {

constexpr std::int64_t unstructured = 9;  // internal code of the model
constexpr double least_share = 1e-5;      // of a variance: what the levels before must leave unexplained
constexpr std::int64_t expanded_mode = 2;

/// Whether a matrix of n levels, by columns, is well inside the space of positive definite ones.
bool is_sound(std::vector<double> a, std::int64_t n)
{
  const auto at = [n](std::int64_t i, std::int64_t j) { return static_cast<std::size_t>(i + j * n); };
  std::vector<double> diagonal(static_cast<std::size_t>(n));
  for (std::int64_t i = 0; i < n; ++i) diagonal[static_cast<std::size_t>(i)] = a[at(i, i)];
  if (dpotrf('L', n, a.data(), n) != 0) return false;
  for (std::int64_t i = 0; i < n; ++i) {
    if (!(a[at(i, i)] * a[at(i, i)] > least_share * diagonal[static_cast<std::size_t>(i)])) return false;
  }
  return true;
}

/// A symmetric matrix by columns out of one value an element (i, j) of the lower triangle, from 0.
template <class Value>
std::vector<double> unpacked(std::int64_t n, Value value)
{
  std::vector<double> a(static_cast<std::size_t>(n * n));
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      a[static_cast<std::size_t>(i + j * n)] = a[static_cast<std::size_t>(j + i * n)] = value(i, j);
    }
  }
  return a;
}

/// The place of element (i, j), i at least j, both from 0, in a packed lower triangle by rows.
std::int64_t triangle_place(std::int64_t i, std::int64_t j)
{
  return i * (i + 1) / 2 + j;
}

/// The place of a parameter among the active ones; -1: it is none of them.
std::int64_t active_place(const INFORMATION& information, std::size_t parameter)
{
  const auto p = static_cast<std::int64_t>(parameter);
  const auto at = std::lower_bound(information.active.begin(), information.active.end(), p);
  return at != information.active.end() && *at == p ? at - information.active.begin() : -1;
}

/// The levels (from 0) of an unstructured row that EM can serve: all of them, or those that move as a whole where the others are
/// held and have no covariance with them; none where that is not so.
std::vector<std::int64_t> moving_levels(const EM_STATE::ROW& row, const INFORMATION& information, const VARIANCE_MODEL& model)
{
  const auto parameter = [&](std::int64_t i, std::int64_t j) { return static_cast<std::size_t>(row.first + triangle_place(i, j)); };
  const auto moves = [&](std::size_t p) { return active_place(information, p) >= 0 && !follows(model.parameters[p]); };
  std::vector<std::int64_t> levels;
  for (std::int64_t i = 0; i < row.levels; ++i) {
    const bool moving = moves(parameter(i, i));
    for (std::int64_t j = 0; j < i; ++j) {
      const bool both = moving && std::binary_search(levels.begin(), levels.end(), j);
      const bool apart = !moves(parameter(i, j)) && model.parameters[parameter(i, j)].value == 0.0;
      const bool neither = !moving && !std::binary_search(levels.begin(), levels.end(), j);
      if (both ? !moves(parameter(i, j)) : !apart && !neither) return {};
    }
    if (moving) levels.push_back(i);
  }
  return levels;
}

/// The element of C at two positions; 0 off its pattern.
double element(const COEFFICIENTS& c, std::int64_t i, std::int64_t j)
{
  if (i < j) std::swap(i, j);
  const auto from = c.row.begin() + c.start[static_cast<std::size_t>(j)];
  const auto to = c.row.begin() + c.start[static_cast<std::size_t>(j) + 1];
  const auto found = std::lower_bound(from, to, static_cast<std::int32_t>(i));
  return found != to && *found == i ? c.value[static_cast<std::size_t>(found - c.row.begin())] : 0.0;
}

void add_rows(const std::vector<STRUCTURE_ROW>& rows, std::int64_t first, const COMPONENTS& components, std::int64_t structure,
              EM_STATE& em)
{
  double size = 1.0;
  for (const auto& component : components) size *= static_cast<double>(component->inverse().n);
  for (std::size_t c = 0; c < components.size(); ++c) {
    const STRUCTURE_ROW& row = rows[static_cast<std::size_t>(first) + c];
    if (row.model != unstructured || row.size < 1) continue;
    em.rows.push_back({row.first, row.size, size / static_cast<double>(row.size), structure, static_cast<std::int64_t>(c)});
  }
}

}  // namespace

void K4MEMV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIANCE_MODEL& model, const FORMED& formed, EM_STATE& em)
{
  const Frame here{eh, __func__};
  em = {};
  // Not asked for, the expanded step is taken: mending alone may end far below the best LogL where that lies at the boundary.
  em.chosen = options(Slot::em_mode) > 0;
  em.asked = em.chosen ? options(Slot::em_value) : 1;
  em.expanded = !em.chosen || options(Slot::em_mode) == expanded_mode;
  if (em.asked <= 0) return;
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    if (model.terms[t].dropped) continue;
    add_rows(model.rows, model.terms[t].first_row, formed.terms[t].components, static_cast<std::int64_t>(t), em);
  }
  for (std::size_t s = 0; s < model.sections.size(); ++s) {
    add_rows(model.residual, model.sections[s].first_row, formed.sections[s].components, -1, em);
  }
}

void K4MEMU(const std::vector<double>& sigma, const std::vector<double>& d, double units, std::int64_t levels, std::vector<double>& next)
{
  std::vector<double> half(sigma.size());
  next = sigma;
  dgemm('N', 'N', levels, levels, levels, 1.0, sigma.data(), levels, d.data(), levels, 0.0, half.data(), levels);
  dgemm('N', 'N', levels, levels, levels, 2.0 / units, half.data(), levels, sigma.data(), levels, 1.0, next.data(), levels);
}

bool K4MEMP(const FIT_MODEL& in, const VARIANCE_MODEL& model, const EM_STATE::ROW& row, const std::vector<std::int64_t>& levels,
            MIXED_EQUATIONS& q, const EVALUATION& ev, const std::vector<double>& sigma, const std::vector<double>& d, std::vector<double>& next)
{
  const TERM_STRUCTURE& structure = model.terms[static_cast<std::size_t>(row.structure)];
  const COMPONENTS& components = ev.formed.terms[static_cast<std::size_t>(row.structure)].components;
  const PRODUCT_BLOCK block = block_of(components, static_cast<std::size_t>(row.component));
  const std::int64_t first = first_equation(in.terms, structure);
  const std::int64_t m = std::ssize(levels);
  const std::int64_t mm = m * m;
  std::vector<std::int64_t> among(static_cast<std::size_t>(row.levels), -1);  // of all levels: the place among those that move
  for (std::int64_t i = 0; i < m; ++i) among[static_cast<std::size_t>(levels[static_cast<std::size_t>(i)])] = i;
  PRODUCT_ROWS& rows = q.random[static_cast<std::size_t>(row.structure)];

  // F(ij, kl) sums, over units a, the residual part of C at (i a, k a) times E[u_j u_l]; f is by columns, ij = i m + j.
  std::vector<double> f(static_cast<std::size_t>(mm * mm), 0.0);
  std::vector<double> left(static_cast<std::size_t>(mm));
  std::vector<double> expected(static_cast<std::size_t>(mm));
  std::vector<std::int64_t> at(static_cast<std::size_t>(m));
  for (std::int64_t o = 0; o < block.outer; ++o) {
    for (std::int64_t a = 0; a < block.inner; ++a) {
      const auto equation = [&](std::int64_t level) { return (o * row.levels + levels[static_cast<std::size_t>(level)]) * block.inner + a; };
      for (std::int64_t i = 0; i < m; ++i) at[static_cast<std::size_t>(i)] = q.position_of(first + equation(i));
      for (std::int64_t i = 0; i < m; ++i) {
        const std::int64_t p = at[static_cast<std::size_t>(i)];
        for (std::int64_t k = 0; k < m; ++k) {
          const std::int64_t r = at[static_cast<std::size_t>(k)];
          left[static_cast<std::size_t>(i * m + k)] = element(q.c, p, r);
          expected[static_cast<std::size_t>(i * m + k)] =
              K4MXIJ(q.factor, p, r) + ev.solution[static_cast<std::size_t>(p)] * ev.solution[static_cast<std::size_t>(r)] / ev.sigma2;
        }
        rows.move_to(equation(i));
        rows.each([&](std::int64_t column, double g) {
          if (column % block.inner != a || column / (block.inner * row.levels) != o) return;
          const std::int64_t k = among[static_cast<std::size_t>((column / block.inner) % row.levels)];
          if (k >= 0) left[static_cast<std::size_t>(i * m + k)] -= g;
        });
      }
      for (std::int64_t i = 0; i < m; ++i) {
        for (std::int64_t k = 0; k < m; ++k) {
          const double by = left[static_cast<std::size_t>(i * m + k)];
          if (by == 0.0) continue;
          for (std::int64_t j = 0; j < m; ++j) {
            for (std::int64_t l = 0; l < m; ++l) {
              f[static_cast<std::size_t>((i * m + j) + (k * m + l) * mm)] += by * expected[static_cast<std::size_t>(j * m + l)];
            }
          }
        }
      }
    }
  }
  std::vector<double> g(static_cast<std::size_t>(mm));  // g(i m + j) = (2 D Sigma)(i, j), which is (2 Sigma D)(j, i) by columns
  dgemm('N', 'N', m, m, m, 2.0, sigma.data(), m, d.data(), m, 0.0, g.data(), m);
  if (dpotrf('L', mm, f.data(), mm) != 0) return false;
  dtrsm('L', 'L', 'N', 'N', mm, 1, 1.0, f.data(), mm, g.data(), mm);
  dtrsm('L', 'L', 'T', 'N', mm, 1, 1.0, f.data(), mm, g.data(), mm);
  // g now holds alpha' - I by columns.
  for (std::int64_t i = 0; i < m; ++i) g[static_cast<std::size_t>(i * m + i)] += 1.0;
  if (!std::all_of(g.begin(), g.end(), [](double x) { return std::isfinite(x); })) return false;
  std::vector<double> half(static_cast<std::size_t>(mm));
  dgemm('T', 'N', m, m, m, 1.0, g.data(), m, next.data(), m, 0.0, half.data(), m);
  dgemm('N', 'N', m, m, m, 1.0, half.data(), m, g.data(), m, 0.0, next.data(), m);
  return true;
}

void K4MEMM(ERROR_HANDLER& eh, const FIT_MODEL& in, MIXED_EQUATIONS& q, const EVALUATION& ev, VARIANCE_MODEL& model, UPDATE_STATE& state,
            EM_STATE& em)
{
  const Frame here{eh, __func__};
  std::vector<double> next;
  for (const EM_STATE::ROW& row : em.rows) {
    const std::vector<std::int64_t> levels = moving_levels(row, ev.information, model);
    const auto n = std::ssize(levels);
    if (n == 0) continue;
    const auto parameter = [&](std::int64_t i, std::int64_t j) {  // of two places among the levels, i at least j
      return static_cast<std::size_t>(row.first + triangle_place(levels[static_cast<std::size_t>(i)], levels[static_cast<std::size_t>(j)]));
    };
    if (is_sound(unpacked(n, [&](std::int64_t i, std::int64_t j) { return model.parameters[parameter(i, j)].value; }), n)) continue;
    const std::vector<double> sigma = unpacked(n, [&](std::int64_t i, std::int64_t j) { return ev.evaluated[parameter(i, j)]; });
    // A covariance stands twice in the matrix, its score is for both places.
    const std::vector<double> d = unpacked(n, [&](std::int64_t i, std::int64_t j) {
      return (i == j ? 1.0 : 0.5) * ev.information.score[static_cast<std::size_t>(active_place(ev.information, parameter(i, j)))];
    });
    K4MEMU(sigma, d, row.units, n, next);
    if (em.expanded && row.structure >= 0) {
      const std::vector<double> plain = next;
      if (!K4MEMP(in, model, row, levels, q, ev, sigma, d, next) || !is_sound(next, n)) next = plain;
    }
    if (!is_sound(next, n)) continue;
    ++em.used;
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j <= i; ++j) {
        const std::size_t k = parameter(i, j);
        VARIANCE_PARAMETER& v = model.parameters[k];
        const double old = ev.evaluated[k];
        v.value = next[static_cast<std::size_t>(i + j * n)];
        v.constraint = v.constraint == Constraint::B ? Constraint::P : v.constraint;
        state.reference[k] = v.value;
        state.change[k] = old != 0.0 ? (v.value - old) / old : 0.0;
        state.largest_change = std::max(state.largest_change, std::fabs(state.change[k]));
      }
    }
  }
}

std::string em_description(const EM_STATE& em)
{
  const bool single = em.asked == 1;
  if (em.expanded) return single ? "Single step PXEM update when AI update unacceptable" : "Iterated PXEM update when AI update unacceptable";
  return single ? "Single standard EM update when AI update unacceptable" : "Iterated EM update when AI update unacceptable";
}

}  // namespace tolvan
