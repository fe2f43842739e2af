// Matrices whose elements are parameters, kept positive definite by the step.  Routines: list_definite, placed_parameters,
// keep_rows_inside.
#include "estimation/keep_rows.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>

#include "base/lapack.h"
#include "estimation/factor_rows.h"
#include "estimation/newton_step.h"

namespace tolvan {
namespace {

constexpr std::int64_t unstructured = 9;     // internal code of us()
constexpr std::int64_t chol = 11, ante = 12;
constexpr double own_share = 2e-4;  // of a level's variance that factors of the inverse leave to it
constexpr std::int64_t general_selector = 6;  // selector of corg()

bool is_triangle(DefiniteForm form)
{
  return form == DefiniteForm::factors || form == DefiniteForm::precision_factors;
}

/// What the step has to know of a row of the structure table if it is such a matrix.
std::optional<DEFINITE_ROW> definite_row(const STRUCTURE_ROW& row)
{
  if (row.size < 1 || row.stepped > 0) return std::nullopt;
  if (row.model == unstructured) return DEFINITE_ROW{row.first, row.size, DefiniteForm::covariances};
  if ((row.model == chol || row.model == ante) && row.size > 1 && row.order >= row.size - 1)
    return DEFINITE_ROW{row.first, row.size, row.model == chol ? DefiniteForm::factors : DefiniteForm::precision_factors};
  if (row.model != 5 || row.selector != general_selector || row.segments >= 0 || row.size < 2) return std::nullopt;
  const std::int64_t pairs = row.size * (row.size - 1) / 2;
  if (row.parameters == pairs + row.size) return DEFINITE_ROW{row.first, row.size, DefiniteForm::scaled_correlations};
  if (row.parameters == pairs || row.parameters == pairs + 1) return DEFINITE_ROW{row.first, row.size, DefiniteForm::correlations};
  return std::nullopt;
}

/// The positions in `active` of a row's elements, empty unless all of them are open.
std::vector<std::size_t> positions(const INFORMATION& information, const DEFINITE_ROW& row, const std::vector<std::uint8_t>& open)
{
  const auto first = std::lower_bound(information.active.begin(), information.active.end(), row.first);
  const auto place = static_cast<std::size_t>(first - information.active.begin());
  const auto count = static_cast<std::size_t>(row.parameters());
  std::vector<std::size_t> inside;
  for (std::size_t i = place; i < place + count && i < open.size() && open[i]; ++i) inside.push_back(i);
  const bool whole = inside.size() == count && count > 0 &&
                     information.active[place + count - 1] == row.first + static_cast<std::int64_t>(count) - 1;
  if (!whole) inside.clear();
  return inside;
}

std::size_t packed(std::int64_t i, std::int64_t j)
{
  return static_cast<std::size_t>(i * (i + 1) / 2 + j);
}

/// A row as a matrix: its packed elements now and after the step, those that are free, and the information on these.
struct PLACEMENT {
  std::vector<double> present, target;   // all packed elements by rows
  std::vector<std::size_t> elements;     // packed positions, rising
  std::vector<double> information;       // on the elements, by columns
};

/// Correlations theta and variances v as the elements of V = D R D: with dV = J dtheta the step is J delta, the information
/// J^-T S J^-1, where J^-1 has d rho_ij = dV_ij / sqrt(v_i v_j) - rho_ij (dv_i / v_i + dv_j / v_j) / 2.
void take_as_covariances(std::int64_t n, const std::vector<double>& value, const std::vector<double>& step, std::vector<double>& s,
                         PLACEMENT& out)
{
  const auto p = static_cast<std::int64_t>(value.size());
  const auto pairs = static_cast<std::size_t>(n * (n - 1) / 2);
  std::vector<double> inverse(static_cast<std::size_t>(p * p), 0.0);
  const auto set = [&](std::size_t parameter, std::size_t element, double x) {
    inverse[parameter + element * static_cast<std::size_t>(p)] = x;
  };
  std::size_t pair = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    const double vi = value[pairs + static_cast<std::size_t>(i)];
    for (std::int64_t j = 0; j < i; ++j, ++pair) {
      const double vj = value[pairs + static_cast<std::size_t>(j)];
      const double root = std::sqrt(vi * vj);
      const double rho = value[pair];
      out.present[packed(i, j)] = rho * root;
      const double di = step[pairs + static_cast<std::size_t>(i)] / vi, dj = step[pairs + static_cast<std::size_t>(j)] / vj;
      out.target[packed(i, j)] = root * (rho + step[pair] + 0.5 * rho * (di + dj));
      set(pair, packed(i, j), 1.0 / root);
      set(pair, packed(i, i), -0.5 * rho / vi);
      set(pair, packed(j, j), -0.5 * rho / vj);
    }
    out.present[packed(i, i)] = vi;
    out.target[packed(i, i)] = vi + step[pairs + static_cast<std::size_t>(i)];
    set(pairs + static_cast<std::size_t>(i), packed(i, i), 1.0);
  }
  out.elements.resize(static_cast<std::size_t>(p));
  std::iota(out.elements.begin(), out.elements.end(), std::size_t{0});
  std::vector<double> half(inverse.size());
  dgemm('N', 'N', p, p, p, 1.0, s.data(), p, inverse.data(), p, 0.0, half.data(), p);
  out.information.resize(inverse.size());
  dgemm('T', 'N', p, p, p, 1.0, inverse.data(), p, half.data(), p, 0.0, out.information.data(), p);
}

/// False for a row that is no positive definite matrix now.
bool place(const DEFINITE_ROW& row, const std::vector<double>& value, const std::vector<double>& step, std::vector<double>& s,
           PLACEMENT& out)
{
  const std::int64_t n = row.levels;
  const auto size = static_cast<std::size_t>(n * (n + 1) / 2);
  out.present.assign(size, 0.0);
  out.target.assign(size, 0.0);
  out.elements.clear();
  if (is_triangle(row.form)) {
    out.elements.resize(size);
    std::iota(out.elements.begin(), out.elements.end(), std::size_t{0});
    return as_covariances(row.form == DefiniteForm::precision_factors, n, value, step, s, out.present, out.target, out.information);
  }
  if (row.form == DefiniteForm::scaled_correlations) {
    const auto variances = value.end() - n;
    if (std::any_of(variances, value.end(), [](double v) { return !(v > 0.0); })) return false;
    take_as_covariances(n, value, step, s, out);
    return true;
  }
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) {
      if (i == j && row.form == DefiniteForm::correlations) {
        out.present[packed(i, i)] = out.target[packed(i, i)] = 1.0;
        continue;
      }
      out.elements.push_back(packed(i, j));
      out.present[packed(i, j)] = value[k];
      out.target[packed(i, j)] = value[k] + step[k];
      ++k;
    }
  }
  out.information = s;
  return true;
}

/// Factors of the inverse can not be told apart where a level is left with next to no variance of its own: covariances give way.
void keep_apart(std::int64_t n, std::vector<double>& v, std::vector<double>& factors)
{
  const auto at_edge = [&](std::int64_t i) { return factors[packed(i, i)] * v[packed(i, i)] * own_share > 1.0; };
  bool any = factors.empty();
  for (std::int64_t i = 0; i < n && !any; ++i) any = at_edge(i);
  if (!any) return;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j < i; ++j) v[packed(i, j)] *= 1.0 - own_share;
  }
  factors = as_factors(true, n, v);
}

/// The row's parameters out of its packed elements.
std::vector<double> parameters_of(const DEFINITE_ROW& row, std::vector<double> v)
{
  if (row.form == DefiniteForm::covariances) return v;
  if (is_triangle(row.form)) {
    const bool of_precision = row.form == DefiniteForm::precision_factors;
    std::vector<double> factors = as_factors(of_precision, row.levels, v);
    if (of_precision) keep_apart(row.levels, v, factors);
    return factors;
  }
  std::vector<double> out;
  for (std::int64_t i = 0; i < row.levels; ++i) {
    for (std::int64_t j = 0; j < i; ++j) out.push_back(v[packed(i, j)] / std::sqrt(v[packed(i, i)] * v[packed(j, j)]));
  }
  if (row.form == DefiniteForm::scaled_correlations) {
    for (std::int64_t i = 0; i < row.levels; ++i) out.push_back(v[packed(i, i)]);
  }
  return out;
}

}  // namespace

std::int64_t DEFINITE_ROW::parameters() const
{
  return form == DefiniteForm::correlations ? levels * (levels - 1) / 2 : levels * (levels + 1) / 2;
}

void list_definite(const VARIANCE_MODEL& model, bool with_unstructured, std::vector<DEFINITE_ROW>& rows)
{
  rows.clear();
  const auto take = [&](const std::vector<STRUCTURE_ROW>& table, std::int64_t first, std::int64_t count, bool covariances) {
    for (std::int64_t r = first; r < first + count; ++r) {
      const std::optional<DEFINITE_ROW> row = definite_row(table[static_cast<std::size_t>(r)]);
      if (row && (covariances || row->form != DefiniteForm::covariances)) rows.push_back(*row);
    }
  };
  for (const TERM_STRUCTURE& structure : model.terms) {
    if (!structure.dropped) take(model.rows, structure.first_row, structure.rows, with_unstructured);
  }
  // Unstructured residuals step on the scale of their inverse, which does not leave the space.
  for (const RESIDUAL_SECTION& section : model.sections) take(model.residual, section.first_row, section.rows, false);
}

std::vector<std::uint8_t> placed_parameters(const INFORMATION& information, const std::vector<DEFINITE_ROW>& rows,
                                            const std::vector<std::uint8_t>& open)
{
  std::vector<std::uint8_t> placed(open.size(), 0);
  for (const DEFINITE_ROW& row : rows) {
    for (const std::size_t i : positions(information, row, open)) placed[i] = 1;
  }
  return placed;
}

void keep_rows_inside(const INFORMATION& information, const VARIANCE_MODEL& model, const std::vector<DEFINITE_ROW>& rows,
                      std::vector<std::uint8_t>& open, std::vector<double>& taken, std::vector<double>& delta)
{
  std::vector<double> value, step, s, next;
  PLACEMENT matrix;
  for (const DEFINITE_ROW& row : rows) {
    const std::vector<std::size_t> inside = positions(information, row, open);
    if (inside.empty()) continue;
    value.clear();
    step.clear();
    for (const std::size_t i : inside) {
      value.push_back(model.parameters[static_cast<std::size_t>(information.active[i])].value);
      step.push_back(delta[i] * information.unit[i]);
    }
    if (!reduced_information(information, open, inside, s)) continue;
    const std::size_t p = inside.size();
    for (std::size_t j = 0; j < p; ++j) {
      for (std::size_t i = 0; i < p; ++i) s[i + j * p] /= information.unit[inside[i]] * information.unit[inside[j]];
    }
    if (!place(row, value, step, s, matrix)) continue;
    next = matrix.target;
    const bool leaves = leaves_space(row.levels, matrix.present, matrix.target);
    if (!leaves && row.form == DefiniteForm::covariances) continue;
    if (leaves && !nearest_inside(row.levels, matrix.present, matrix.target, matrix.elements, matrix.information, next)) continue;
    next = parameters_of(row, next);
    if (next.empty()) continue;
    for (std::size_t i = 0; i < p; ++i) {
      open[inside[i]] = 0;
      taken[inside[i]] = (next[i] - value[i]) / information.unit[inside[i]];
    }
    solve_step(information, open, taken, delta);
  }
}

}  // namespace tolvan
