#include "data/spline_basis.h"

#include <algorithm>
#include <cmath>

namespace tolvan {

namespace {

/// Takes the least-squares line in t off g.  Twice: the second time removes what rounding of the first has left.
void remove_line(std::span<const double> t, std::span<double> g)
{
  const auto K = static_cast<double>(t.size());
  double mean_t = 0.0;
  for (const double x : t) mean_t += x / K;
  double spread = 0.0;
  for (const double x : t) spread += (x - mean_t) * (x - mean_t);
  for (int pass = 0; pass < 2; ++pass) {
    double mean = 0.0, slope = 0.0;
    for (std::size_t i = 0; i < t.size(); ++i) {
      mean += g[i] / K;
      slope += (t[i] - mean_t) / spread * g[i];
    }
    for (std::size_t i = 0; i < t.size(); ++i) g[i] -= mean + slope * (t[i] - mean_t);
  }
}

}  // namespace

void spline_basis(DESIGN_BASIS& basis)
{
  // On the scale t in 0 to 1; the final factor makes the scale immaterial.
  const std::size_t K = basis.points.size(), n = K - 2;
  const double range = basis.points.back() - basis.points.front();
  basis.columns = static_cast<std::int64_t>(n);
  std::vector<double> t(K), h(K - 1);
  for (std::size_t i = 0; i < K; ++i) t[i] = (basis.points[i] - basis.points[0]) / range;
  for (std::size_t i = 0; i + 1 < K; ++i) h[i] = (basis.points[i + 1] - basis.points[i]) / range;

  // R = L L', r_jj = (h_(j-1) + h_j) / 3, r_(j,j+1) = h_j / 6: L has the diagonal d and e below it.
  std::vector<double> d(n), e(n, 0.0);
  for (std::size_t j = 0; j < n; ++j) {
    const double before = j == 0 ? 0.0 : e[j - 1];
    d[j] = std::sqrt((h[j] + h[j + 1]) / 3.0 - before * before);
    if (j + 1 < n) e[j] = h[j + 1] / 6.0 / d[j];
  }

  basis.table.assign(K * n, 0.0);
  basis.curvature.assign(K * n, 0.0);
  double squares = 0.0;
  std::vector<double> g(K);
  for (std::size_t j = 0; j < n; ++j) {
    // Q'g = L e_j: the slope from knot i + 1 to the next exceeds the one before by element i of the column.
    double slope = 0.0;
    g[0] = g[1] = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      slope += i == j ? d[j] : i == j + 1 ? e[j] : 0.0;
      g[i + 2] = g[i + 1] + h[i + 1] * slope;
    }
    remove_line(t, g);
    for (std::size_t i = 0; i < K; ++i) {
      basis.table[i * n + j] = g[i];
      squares += g[i] * g[i];
    }
    // R gamma = Q'g = L e_j: L' gamma = e_j, so gamma_i is 0 above i = j.
    double gamma = 1.0 / d[j];
    basis.curvature[(j + 1) * n + j] = gamma;
    for (std::size_t i = j; i-- > 0;) {
      gamma *= -e[i] / d[i];
      basis.curvature[(i + 1) * n + j] = gamma;
    }
  }
  const double factor = std::sqrt(static_cast<double>(K) / squares);
  for (double& value : basis.table) value *= factor;
  for (double& value : basis.curvature) value *= factor;
}

void AIXSPL(const DESIGN_BASIS& basis, double x, std::span<double> z)
{
  const std::span<const double> knots = basis.points;
  const std::size_t K = knots.size(), n = K - 2;
  const double range = knots.back() - knots.front();
  // The last knot i at or below x, but for the last knot; 0 below all.
  const auto above = static_cast<std::size_t>(std::upper_bound(knots.begin(), knots.end(), x) - knots.begin());
  const std::size_t i = std::min(above == 0 ? 0 : above - 1, K - 2);
  const double* g0 = basis.table.data() + i * n;
  const double* g1 = g0 + n;
  const double* c0 = basis.curvature.data() + i * n;
  const double* c1 = c0 + n;
  const double h = (knots[i + 1] - knots[i]) / range;
  const double left = (x - knots[i]) / range, right = (knots[i + 1] - x) / range;
  double a0, a1, b0, b1;  // z = a0 g0 + a1 g1 + b0 c0 + b1 c1
  if (x >= knots.front() && x <= knots.back()) {
    const double both = -left * right / 6.0;
    a0 = right / h;
    a1 = left / h;
    b0 = both * (1.0 + right / h);
    b1 = both * (1.0 + left / h);
  } else {
    // The end's tangent; the curvature of the end itself is 0.
    a0 = right / h;
    a1 = left / h;
    b0 = x < knots.front() ? 0.0 : h * left / 6.0 - h * h / 6.0;
    b1 = x < knots.front() ? -h * left / 6.0 : 0.0;
  }
  for (std::size_t j = 0; j < n; ++j) z[j] = a0 * g0[j] + a1 * g1[j] + b0 * c0[j] + b1 * c1[j];
}

std::vector<double> equally_spaced(double least, double most, std::int64_t count)
{
  std::vector<double> points(static_cast<std::size_t>(count));
  const auto steps = static_cast<double>(count - 1);
  for (std::int64_t i = 0; i < count; ++i) {
    const double part = static_cast<double>(i) / steps;
    points[static_cast<std::size_t>(i)] = (1.0 - part) * least + part * most;
  }
  return points;
}

void BISQUBASISFUN(const DESIGN_BASIS& basis, double x, std::span<double> z)
{
  const std::span<const double> knots = basis.points;
  const double r = 1.5 * (knots.back() - knots.front()) / static_cast<double>(knots.size() - 1);
  for (std::size_t j = 0; j < z.size(); ++j) {
    const double ratio = std::abs(x - knots[j]) / r;
    const double part = 1.0 - ratio * ratio;
    z[j] = ratio < 1.0 ? part * part : 0.0;
  }
}

}  // namespace tolvan
