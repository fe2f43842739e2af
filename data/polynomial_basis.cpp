#include "data/polynomial_basis.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "base/lapack.h"

namespace tolvan {

DegreeRange degree_range(std::int64_t t)
{
  return t < 0 ? DegreeRange{1, -t} : DegreeRange{0, t + 1};
}

void scale_to_unit_range(double least, double most, DESIGN_BASIS& basis)
{
  basis.centre = least + 0.5 * (most - least);
  basis.half_range = 0.5 * (most - least);
}

namespace {

constexpr double largest_miss = 1e-12;

/// p_0(x), ... by the recursion.
void run_recursion(const DESIGN_BASIS& basis, double x, std::span<double> p)
{
  const double u = (x - basis.centre) / basis.half_range;
  p[0] = basis.table[0];
  const double* row = basis.table.data() + 1;
  for (std::size_t j = 0; j + 1 < p.size(); ++j) {
    double q = u * p[j];
    for (std::size_t k = 0; k <= j; ++k) q -= row[k] * p[k];
    p[j + 1] = q / row[j + 1];
    row += j + 2;
  }
}

/// Keeps the polynomials at the points where the recursion does not give them back.
///   p   each polynomial at all points
void keep_points(std::span<const double> points, const std::vector<std::vector<double>>& p, DESIGN_BASIS& basis)
{
  std::vector<double> found(p.size());
  double miss = 0.0;
  for (std::size_t i = 0; i < points.size(); ++i) {
    run_recursion(basis, points[i], found);
    for (std::size_t j = 0; j < p.size(); ++j) miss = std::max(miss, std::abs(found[j] - p[j][i]));
  }
  basis.points.clear();
  basis.at_points.clear();
  if (miss <= largest_miss) return;
  basis.points.assign(points.begin(), points.end());
  basis.at_points.reserve(points.size() * p.size());
  for (std::size_t i = 0; i < points.size(); ++i)
    for (const std::vector<double>& polynomial : p) basis.at_points.push_back(polynomial[i]);
}

}  // namespace

void orthogonal_recursion(std::span<const double> points, std::int64_t degree, DESIGN_BASIS& basis)
{
  // Row j of the table: the coefficients of p_0 to p_j in u p_j, then the norm of what is left.
  const auto m = static_cast<std::int64_t>(points.size());
  const auto degrees = static_cast<std::size_t>(degree);
  std::vector<std::vector<double>> p{std::vector<double>(points.size(), 1.0 / std::sqrt(static_cast<double>(m)))};
  std::vector<double> u(points.size());
  for (std::size_t i = 0; i < u.size(); ++i) u[i] = (points[i] - basis.centre) / basis.half_range;
  basis.table.assign(1 + degrees * (degrees + 3) / 2, 0.0);
  basis.table[0] = p[0][0];
  double* row = basis.table.data() + 1;
  for (std::size_t j = 0; j < degrees; ++j) {
    std::vector<double> q(points.size());
    for (std::size_t i = 0; i < q.size(); ++i) q[i] = u[i] * p[j][i];
    for (int pass = 0; pass < 2; ++pass) {
      for (std::size_t k = 0; k <= j; ++k) {
        const double h = ddot(m, p[k].data(), 1, q.data(), 1);
        daxpy(m, -h, p[k].data(), 1, q.data(), 1);
        row[k] += h;
      }
    }
    const double norm = std::sqrt(ddot(m, q.data(), 1, q.data(), 1));
    row[j + 1] = norm;
    dscal(m, 1.0 / norm, q.data(), 1);
    p.push_back(std::move(q));
    row += j + 2;
  }
  keep_points(points, p, basis);
}

void orthogonal_polynomials(const DESIGN_BASIS& basis, double x, std::span<double> p)
{
  const auto at = std::lower_bound(basis.points.begin(), basis.points.end(), x);
  if (at == basis.points.end() || *at != x) {
    run_recursion(basis, x, p);
    return;
  }
  const auto width = static_cast<std::ptrdiff_t>(basis.at_points.size() / basis.points.size());
  std::copy_n(basis.at_points.begin() + (at - basis.points.begin()) * width, p.size(), p.begin());
}

void legendre_polynomials(const DESIGN_BASIS& basis, double x, std::span<double> p)
{
  // (j + 1) P_(j+1) = (2 j + 1) u P_j - j P_(j-1)
  const double u = (x - basis.centre) / basis.half_range;
  double before = 0.0, P = 1.0;
  for (std::size_t j = 0; j < p.size(); ++j) {
    const auto n = static_cast<double>(j);
    p[j] = std::sqrt((2.0 * n + 1.0) / 2.0) * P;
    const double next = ((2.0 * n + 1.0) * u * P - n * before) / (n + 1.0);
    before = P;
    P = next;
  }
}

}  // namespace tolvan
