// Random sparse symmetric matrices for the tests of ordering, factor and inverse, with their plain dense
// twin.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "estimation/factor.h"
#include "estimation/order_equations.h"

namespace tolvan::test {

enum class Shape { arrow, band, random, block, apart, crossed };
inline constexpr Shape all_shapes[] = {Shape::arrow, Shape::band,  Shape::random,
                                       Shape::block, Shape::apart, Shape::crossed};

/// The pairs (i, j), i > j, of a pattern of some shape; the dense equations come last and meet sparse ones at
/// random.
inline PATTERN make_pattern(Shape shape, std::int64_t n, std::int64_t dense, unsigned seed)
{
  std::mt19937 random(seed);
  const auto draw = [&](std::int64_t bound) {
    return static_cast<std::int64_t>(random() % static_cast<unsigned>(bound));
  };
  dense = std::min(dense, n);
  const std::int64_t sparse = n - dense;
  std::set<std::pair<std::int64_t, std::int64_t>> pairs;
  const auto join = [&](std::int64_t a, std::int64_t b) {
    if (a != b) pairs.insert({std::min(a, b), std::max(a, b)});
  };
  for (std::int64_t i = 0; i < sparse; ++i) {
    switch (shape) {
      case Shape::arrow:
        join(i, 0);
        break;
      case Shape::band:
        for (std::int64_t k = 1; k <= 4; ++k) join(i, std::min(i + k, sparse - 1));
        break;
      case Shape::random:
        for (int k = 0; k < 3; ++k) join(i, draw(sparse));
        break;
      case Shape::block:
        for (std::int64_t j = i / 12 * 12; j < i; ++j) join(i, j);
        if (i % 12 == 0) join(i, draw(sparse));
        break;
      case Shape::apart:
        if (i % 7 != 0) join(i, i - 1);
        break;
      case Shape::crossed:  // the first four fifths meet the rest alone
        if (i < sparse * 4 / 5) {
          for (int k = 0; k < 4; ++k) join(i, sparse * 4 / 5 + draw(sparse - sparse * 4 / 5));
        }
        break;
    }
    for (std::int64_t d = 0; d < dense; ++d) {
      if (draw(dense + 3) < 3) join(i, sparse + d);
    }
  }
  PATTERN pattern;
  pattern.n = n;
  pattern.dense = dense;
  pattern.start.assign(static_cast<std::size_t>(n) + 1, 0);
  for (const auto& [j, i] : pairs) {
    ++pattern.start[j + 1];
    pattern.row.push_back(static_cast<std::int32_t>(i));
  }
  std::partial_sum(pattern.start.begin(), pattern.start.end(), pattern.start.begin());
  return pattern;
}

/// A symmetric matrix in inner order, dense, column-major.
struct DENSE {
  std::int64_t n = 0;
  std::vector<double> a;
  double& operator()(std::int64_t i, std::int64_t j) { return a[static_cast<std::size_t>(i + j * n)]; }
  double operator()(std::int64_t i, std::int64_t j) const { return a[static_cast<std::size_t>(i + j * n)]; }
};

enum class Kind { definite, indefinite, singular, dependent };

/// The parts of a pattern that are not joined to each other.
inline std::int64_t parts_of(const PATTERN& pattern)
{
  std::vector<std::int64_t> up(static_cast<std::size_t>(pattern.n));
  std::iota(up.begin(), up.end(), 0);
  std::int64_t parts = pattern.n;
  const auto join = [&](std::int64_t a, std::int64_t b) {
    while (up[a] != a) a = up[a];
    while (up[b] != b) b = up[b];
    parts -= a != b ? 1 : 0;
    up[a] = b;
  };
  for (std::int64_t j = 0; j < pattern.n; ++j) {
    for (std::int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) join(j, pattern.row[p]);
    if (j > pattern.n - pattern.dense) join(j, j - 1);
  }
  return parts;
}

/// Values on a pattern.  Definite and indefinite ones are dominated by their diagonal; a singular one has equations without any
/// information; a dependent one is X'X of differences, whose equations add up to zero in each part of the pattern.
inline DENSE make_values(const PATTERN& pattern, Kind kind, unsigned seed)
{
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  DENSE c;
  c.n = pattern.n;
  c.a.assign(static_cast<std::size_t>(c.n * c.n), 0.0);
  const auto set = [&](std::int64_t i, std::int64_t j) { c(i, j) = c(j, i) = value(random); };
  for (std::int64_t j = 0; j < c.n; ++j) {
    for (std::int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) set(pattern.row[p], j);
    if (j >= c.n - pattern.dense) {
      for (std::int64_t i = j + 1; i < c.n; ++i) {
        if (c(i, j) == 0.0) set(i, j);
      }
    }
  }
  for (std::int64_t i = 0; i < c.n; ++i) {
    double sum = 1.0 + std::abs(value(random));
    for (std::int64_t j = 0; j < c.n; ++j) sum += i == j ? 0.0 : std::abs(c(i, j));
    c(i, i) = kind == Kind::indefinite && i % 3 == 1 ? -sum : sum;
  }
  if (kind == Kind::dependent) {
    for (std::int64_t i = 0; i < c.n; ++i) {
      double sum = 0.0;
      for (std::int64_t j = 0; j < c.n; ++j) {
        if (j == i) continue;
        c(i, j) = -std::abs(c(i, j));
        sum -= c(i, j);
      }
      c(i, i) = sum;
    }
  }
  if (kind == Kind::singular) {
    for (std::int64_t i = 2; i < c.n; i += 5) {  // equations without any information
      for (std::int64_t j = 0; j < c.n; ++j) c(i, j) = c(j, i) = 0.0;
    }
  }
  return c;
}

/// C in the elimination order of a factor.
inline COEFFICIENTS permute(const DENSE& dense, const PATTERN& pattern, const FACTOR& factor)
{
  const std::int64_t n = pattern.n;
  std::vector<std::set<std::int32_t>> rows(static_cast<std::size_t>(n));
  const auto add = [&](std::int64_t a, std::int64_t b) {
    const std::int32_t p = factor.position[a], q = factor.position[b];
    rows[std::min(p, q)].insert(std::max(p, q));
  };
  for (std::int64_t j = 0; j < n; ++j) {
    add(j, j);
    for (std::int64_t p = pattern.start[j]; p < pattern.start[j + 1]; ++p) add(pattern.row[p], j);
    if (j >= n - pattern.dense) {
      for (std::int64_t i = j + 1; i < n; ++i) add(i, j);
    }
  }
  COEFFICIENTS c;
  c.n = n;
  c.start.push_back(0);
  for (std::int64_t j = 0; j < n; ++j) {
    for (const std::int32_t i : rows[j]) {
      c.row.push_back(i);
      c.value.push_back(dense(factor.order[i], factor.order[j]));
    }
    c.start.push_back(static_cast<std::int64_t>(c.row.size()));
  }
  return c;
}

/// The textbook elimination of a dense matrix with the plain rule |p| < t: singular.
struct TWIN {
  std::vector<double> l, d;  // unit lower, column-major; 0 for a singular pivot
  double log_determinant = 0.0;
  std::int64_t singular = 0, negative = 0;
};
inline TWIN eliminate(DENSE a, double t0)
{
  TWIN twin;
  const std::int64_t n = a.n;
  std::vector<double> t(static_cast<std::size_t>(n));
  for (std::int64_t i = 0; i < n; ++i) t[i] = std::max(std::abs(a(i, i)) * t0, t0);
  twin.l.assign(a.a.size(), 0.0);
  twin.d.assign(t.size(), 0.0);
  for (std::int64_t k = 0; k < n; ++k) {
    twin.l[k + k * n] = 1.0;
    const double p = a(k, k);
    if (p == 0.0 || std::abs(p) < t[k]) {
      ++twin.singular;
      continue;
    }
    twin.d[k] = p;
    twin.negative += p < 0.0;
    twin.log_determinant += std::log(std::abs(p));
    for (std::int64_t i = k + 1; i < n; ++i) twin.l[i + k * n] = a(i, k) / p;
    for (std::int64_t j = k + 1; j < n; ++j) {
      for (std::int64_t i = j; i < n; ++i) a(i, j) -= twin.l[i + k * n] * p * twin.l[j + k * n];
    }
  }
  return twin;
}

/// Z with Z = C^-1 on the equations that are not singular and zeros for the others, from the twin's factor.
inline DENSE invert(const TWIN& twin, std::int64_t n)
{
  DENSE z;
  z.n = n;
  z.a.assign(twin.l.size(), 0.0);
  for (std::int64_t j = n - 1; j >= 0; --j) {
    if (twin.d[j] == 0.0) continue;
    for (std::int64_t i = n - 1; i >= j; --i) {
      double s = i == j ? 1.0 / twin.d[j] : 0.0;
      for (std::int64_t k = j + 1; k < n; ++k) s -= twin.l[k + j * n] * z(k, i);
      z(i, j) = z(j, i) = s;
    }
  }
  return z;
}

}  // namespace tolvan::test
