// The step of an unstructured matrix, kept in its space.  Routines: leaves_space, nearest_inside, at_edge.
#include "estimation/keep_inside.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/lapack.h"

namespace tolvan {
namespace {

constexpr double shrinkage = 0.0949;   // what a step leaves of the variance of a combination of levels, at the least
constexpr double least_share = 2e-5;   // the least eigenvalue of the matrix between levels scaled by their present variances
constexpr double edge = 1e-4;          // of the same eigenvalue: next to nothing
constexpr double relaxation = 1.6;     // of the method of multipliers
constexpr double close_enough = 1e-10;
constexpr double outside = 1e-6;       // share of the limit by which rounding may miss it
constexpr double most_work = 2e9;      // multiplications, which limit the rounds

/// Coordinates in which the present matrix V = C C' is the identity, C = D^1/2 U L^1/2 with U L U' the matrix of correlations, and
/// the least variance b that each of them may keep.
struct WHITENED {
  std::int64_t n = 0;
  std::vector<double> inverse;     // C^-1, by columns
  std::vector<double> least;       // b
  double smallest = 0.0;           // eigenvalue of the correlations
  bool sound = false;
};

std::vector<double> square(std::int64_t n, const std::vector<double>& packed)
{
  std::vector<double> a(static_cast<std::size_t>(n * n));
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j, ++k) {
      a[static_cast<std::size_t>(i + j * n)] = a[static_cast<std::size_t>(j + i * n)] = packed[k];
    }
  }
  return a;
}

WHITENED whiten(std::int64_t n, const std::vector<double>& present)
{
  WHITENED w{.n = n};
  std::vector<double> u = square(n, present);
  const auto at = [n](std::int64_t i, std::int64_t j) { return static_cast<std::size_t>(i + j * n); };
  std::vector<double> root(static_cast<std::size_t>(n)), eigenvalue(static_cast<std::size_t>(n));
  for (std::int64_t i = 0; i < n; ++i) {
    if (!(u[at(i, i)] > 0.0) || !std::isfinite(u[at(i, i)])) return w;
    root[static_cast<std::size_t>(i)] = std::sqrt(u[at(i, i)]);
  }
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < n; ++i) u[at(i, j)] /= root[static_cast<std::size_t>(i)] * root[static_cast<std::size_t>(j)];
  }
  std::vector<double> work;
  std::vector<std::int32_t> iwork;
  if (dsyevd('V', 'L', n, u.data(), n, eigenvalue.data(), work, iwork) != 0 || !(eigenvalue.front() > 0.0)) return w;
  w.smallest = eigenvalue.front();
  w.inverse.resize(u.size());
  w.least.resize(eigenvalue.size());
  for (std::int64_t j = 0; j < n; ++j) {
    const double l = eigenvalue[static_cast<std::size_t>(j)];
    w.least[static_cast<std::size_t>(j)] = std::max(shrinkage, std::min(1.0, least_share / l));
    for (std::int64_t i = 0; i < n; ++i) {
      const double v = u[at(i, j)];
      w.inverse[at(j, i)] = v / (root[static_cast<std::size_t>(i)] * std::sqrt(l));
    }
  }
  w.sound = true;
  return w;
}

/// A X A' by columns.
std::vector<double> sandwich(std::int64_t n, const std::vector<double>& a, const std::vector<double>& x)
{
  std::vector<double> half(x.size()), out(x.size());
  dgemm('N', 'N', n, n, n, 1.0, a.data(), n, x.data(), n, 0.0, half.data(), n);
  dgemm('N', 'T', n, n, n, 1.0, half.data(), n, a.data(), n, 0.0, out.data(), n);
  return out;
}

/// The target less the limit, in the coordinates.
std::vector<double> above_limit(const WHITENED& w, const std::vector<double>& target)
{
  std::vector<double> z = sandwich(w.n, w.inverse, square(w.n, target));
  for (std::int64_t i = 0; i < w.n; ++i) z[static_cast<std::size_t>(i * (w.n + 1))] -= w.least[static_cast<std::size_t>(i)];
  return z;
}

/// The positive semidefinite matrix nearest to one: its negative eigenvalues become 0.
class Projection {
 public:
  explicit Projection(std::int64_t n) : n_(n), u_(static_cast<std::size_t>(n * n)), scaled_(u_), w_(static_cast<std::size_t>(n)) {}
  bool operator()(std::vector<double>& a)
  {
    u_ = a;
    if (dsyevd('V', 'L', n_, u_.data(), n_, w_.data(), work_, iwork_) != 0) return false;
    if (w_.front() >= 0.0) return true;
    for (std::int64_t j = 0; j < n_; ++j) {
      const double l = std::max(w_[static_cast<std::size_t>(j)], 0.0);
      for (std::int64_t i = 0; i < n_; ++i) scaled_[static_cast<std::size_t>(i + j * n_)] = l * u_[static_cast<std::size_t>(i + j * n_)];
    }
    dgemm('N', 'T', n_, n_, n_, 1.0, scaled_.data(), n_, u_.data(), n_, 0.0, a.data(), n_);
    return true;
  }

 private:
  std::int64_t n_;
  std::vector<double> u_, scaled_, w_, work_;
  std::vector<std::int32_t> iwork_;
};

/// What one unit of each free element is in the coordinates, C^-1 E C^-T, its elements counted as below: m x p by columns.
std::vector<double> by_elements(const WHITENED& w, const std::vector<std::size_t>& elements)
{
  std::vector<double> a;
  const auto c = [&](std::int64_t i, std::int64_t j) { return w.inverse[static_cast<std::size_t>(i + j * w.n)]; };
  std::size_t k = 0, next = 0;
  for (std::int64_t k1 = 0; k1 < w.n; ++k1) {
    for (std::int64_t k2 = 0; k2 <= k1; ++k2, ++k) {
      if (next == elements.size() || elements[next] != k) continue;
      ++next;
      for (std::int64_t i = 0; i < w.n; ++i) {
        for (std::int64_t j = 0; j <= i; ++j) {
          const double x = k1 == k2 ? c(i, k1) * c(j, k1) : c(i, k1) * c(j, k2) + c(i, k2) * c(j, k1);
          a.push_back(i == j ? x : x * std::sqrt(2.0));
        }
      }
    }
  }
  return a;
}

/// Between a symmetric matrix by columns and its elements, off-diagonal ones counted by root 2 so that lengths are those of the
/// whole matrix.
void to_elements(std::int64_t n, const std::vector<double>& a, std::vector<double>& y)
{
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j) y[k++] = a[static_cast<std::size_t>(i + j * n)] * (i == j ? 1.0 : std::sqrt(2.0));
  }
}
void to_square(std::int64_t n, const std::vector<double>& y, std::vector<double>& a)
{
  std::size_t k = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    for (std::int64_t j = 0; j <= i; ++j, ++k) {
      a[static_cast<std::size_t>(i + j * n)] = a[static_cast<std::size_t>(j + i * n)] = y[k] * (i == j ? 1.0 : std::sqrt(0.5));
    }
  }
}

}  // namespace

bool leaves_space(std::int64_t n, const std::vector<double>& present, const std::vector<double>& target)
{
  const WHITENED w = whiten(n, present);
  if (!w.sound) return false;
  std::vector<double> z = above_limit(w, target);
  for (std::int64_t i = 0; i < n; ++i) z[static_cast<std::size_t>(i * (n + 1))] += std::numeric_limits<double>::epsilon() * 16.0;
  return dpotrf('L', n, z.data(), n) != 0;
}

bool at_edge(std::int64_t n, const std::vector<double>& packed)
{
  const WHITENED w = whiten(n, packed);
  return !w.sound || w.smallest < edge;
}

bool nearest_inside(std::int64_t n, const std::vector<double>& present, const std::vector<double>& target,
                    const std::vector<std::size_t>& elements, const std::vector<double>& s, std::vector<double>& next)
{
  const WHITENED w = whiten(n, present);
  if (!w.sound || elements.empty()) return false;
  const std::int64_t m = n * (n + 1) / 2;
  const auto p = static_cast<std::int64_t>(elements.size());
  const auto pp = static_cast<std::size_t>(p * p);

  // y = A d + c, d the change of the elements, c the present matrix less the limit.  rho weighs A'A like S.
  const std::vector<double> a = by_elements(w, elements);
  std::vector<double> gram(pp), x(s), q(s);
  dgemm('T', 'N', p, p, m, 1.0, a.data(), m, a.data(), m, 0.0, gram.data(), p);
  std::vector<double> l = gram;
  if (dpotrf('L', p, l.data(), p) != 0) return false;
  dtrsm('L', 'L', 'N', 'N', p, p, 1.0, l.data(), p, x.data(), p);
  dtrsm('L', 'L', 'T', 'N', p, p, 1.0, l.data(), p, x.data(), p);
  double rho = 0.0;
  for (std::int64_t i = 0; i < p; ++i) rho += x[static_cast<std::size_t>(i * (p + 1))];
  rho /= static_cast<double>(p);
  if (!(rho > 0.0) || !std::isfinite(rho)) return false;
  for (std::size_t i = 0; i < pp; ++i) q[i] += rho * gram[i];
  if (dpotrf('L', p, q.data(), p) != 0) return false;

  std::vector<double> goal(static_cast<std::size_t>(p)), force(goal), d(goal);
  for (std::size_t i = 0; i < goal.size(); ++i) goal[i] = target[elements[i]] - present[elements[i]];
  dgemv('N', p, p, 1.0, s.data(), p, goal.data(), 1, 0.0, force.data(), 1);
  std::vector<double> whole(static_cast<std::size_t>(n * n), 0.0);
  for (std::int64_t i = 0; i < n; ++i) whole[static_cast<std::size_t>(i * (n + 1))] = 1.0 - w.least[static_cast<std::size_t>(i)];
  std::vector<double> c(static_cast<std::size_t>(m)), y(c), z(c), pull(c), multiplier(c.size(), 0.0), before(c);
  to_elements(n, whole, c);
  z = c;
  dgemv('N', m, p, 1.0, a.data(), m, goal.data(), 1, 1.0, z.data(), 1);
  const double length = std::sqrt(ddot(m, z.data(), 1, z.data(), 1)) + 1.0;
  Projection project(n);
  to_square(n, z, whole);
  if (!project(whole)) return false;
  to_elements(n, whole, z);
  const auto rounds = static_cast<int>(std::clamp(most_work / static_cast<double>(p * (2 * m + p)), 100.0, 5000.0));
  for (int round = 0; round < rounds; ++round) {
    // d and y: the quadratic model with the multipliers; z: inside the limit.
    for (std::size_t i = 0; i < y.size(); ++i) pull[i] = z[i] - multiplier[i] - c[i];
    d = force;
    dgemv('T', m, p, rho, a.data(), m, pull.data(), 1, 1.0, d.data(), 1);
    dtrsm('L', 'L', 'N', 'N', p, 1, 1.0, q.data(), p, d.data(), p);
    dtrsm('L', 'L', 'T', 'N', p, 1, 1.0, q.data(), p, d.data(), p);
    y = c;
    dgemv('N', m, p, 1.0, a.data(), m, d.data(), 1, 1.0, y.data(), 1);
    before = z;
    for (std::size_t i = 0; i < y.size(); ++i) {
      y[i] = relaxation * y[i] + (1.0 - relaxation) * before[i];
      z[i] = y[i] + multiplier[i];
    }
    to_square(n, z, whole);
    if (!project(whole)) return false;
    to_elements(n, whole, z);
    double apart = 0.0, moved = 0.0;
    for (std::size_t i = 0; i < y.size(); ++i) {
      multiplier[i] += y[i] - z[i];
      apart = std::max(apart, std::fabs(y[i] - z[i]));
      moved = std::max(moved, std::fabs(z[i] - before[i]));
    }
    if (apart + moved <= close_enough * length) break;
  }
  if (!std::all_of(d.begin(), d.end(), [](double each) { return std::isfinite(each); })) return false;

  // What is left outside after the rounds is pulled back towards the present matrix.
  double share = 1.0;
  for (int halving = 0; halving < 60; ++halving) {
    y = c;
    dgemv('N', m, p, share, a.data(), m, d.data(), 1, 1.0, y.data(), 1);
    to_square(n, y, whole);
    for (std::int64_t i = 0; i < n; ++i) whole[static_cast<std::size_t>(i * (n + 1))] += outside * w.least[static_cast<std::size_t>(i)];
    if (dpotrf('L', n, whole.data(), n) == 0) break;
    share *= 0.9;
  }
  next = present;
  for (std::size_t i = 0; i < d.size(); ++i) next[elements[i]] += share * d[i];
  return true;
}

}  // namespace tolvan
