// Dense linear algebra from the definitions, for tests of formed components: nothing here is shared with what
// it checks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/symmetric.h"

namespace tolvan {

using Vector = std::vector<double>;

/// A matrix by columns.
struct Dense {
  std::int64_t rows = 0, columns = 0;
  Vector a;
  Dense() = default;
  Dense(std::int64_t r, std::int64_t c) : rows(r), columns(c), a(static_cast<std::size_t>(r * c), 0.0) {}
  double& operator()(std::int64_t i, std::int64_t j) { return a[static_cast<std::size_t>(i + j * rows)]; }
  double operator()(std::int64_t i, std::int64_t j) const
  {
    return a[static_cast<std::size_t>(i + j * rows)];
  }
};

inline Dense identity(std::int64_t n)
{
  Dense out(n, n);
  for (std::int64_t i = 0; i < n; ++i) out(i, i) = 1.0;
  return out;
}
inline Dense operator*(const Dense& a, const Dense& b)
{
  Dense out(a.rows, b.columns);
  for (std::int64_t j = 0; j < b.columns; ++j) {
    for (std::int64_t k = 0; k < a.columns; ++k) {
      for (std::int64_t i = 0; i < a.rows; ++i) out(i, j) += a(i, k) * b(k, j);
    }
  }
  return out;
}
inline Dense plus(Dense a, const Dense& b, double by = 1.0)
{
  for (std::size_t i = 0; i < a.a.size(); ++i) a.a[i] += by * b.a[i];
  return a;
}
inline Dense transposed(const Dense& a)
{
  Dense out(a.columns, a.rows);
  for (std::int64_t j = 0; j < a.columns; ++j) {
    for (std::int64_t i = 0; i < a.rows; ++i) out(j, i) = a(i, j);
  }
  return out;
}
/// a x b, the first factor slowest.
inline Dense direct_product(const Dense& a, const Dense& b)
{
  Dense out(a.rows * b.rows, a.columns * b.columns);
  for (std::int64_t j = 0; j < out.columns; ++j) {
    for (std::int64_t i = 0; i < out.rows; ++i)
      out(i, j) = a(i / b.rows, j / b.columns) * b(i % b.rows, j % b.columns);
  }
  return out;
}
inline double norm(const Dense& a)
{
  double sum = 0.0;
  for (const double x : a.a) sum += x * x;
  return std::sqrt(sum);
}
inline double trace_of_product(const Dense& a, const Dense& b)  // tr(A B), B symmetric
{
  double sum = 0.0;
  for (std::size_t i = 0; i < a.a.size(); ++i) sum += a.a[i] * b.a[i];
  return sum;
}

/// The inverse and log|det| by Gauss-Jordan with row pivoting; the sign of the determinant.
struct INVERTED {
  Dense inverse;
  double log_determinant = 0.0;
  int sign = 1;
};
inline INVERTED inverted(Dense a)
{
  const std::int64_t n = a.rows;
  INVERTED out{identity(n)};
  for (std::int64_t k = 0; k < n; ++k) {
    std::int64_t p = k;
    for (std::int64_t i = k + 1; i < n; ++i) {
      if (std::fabs(a(i, k)) > std::fabs(a(p, k))) p = i;
    }
    if (p != k) {
      out.sign = -out.sign;
      for (std::int64_t j = 0; j < n; ++j) {
        std::swap(a(p, j), a(k, j));
        std::swap(out.inverse(p, j), out.inverse(k, j));
      }
    }
    const double pivot = a(k, k);
    out.log_determinant += std::log(std::fabs(pivot));
    if (pivot < 0.0) out.sign = -out.sign;
    for (std::int64_t j = 0; j < n; ++j) {
      a(k, j) /= pivot;
      out.inverse(k, j) /= pivot;
    }
    for (std::int64_t i = 0; i < n; ++i) {
      const double by = a(i, k);
      if (i == k || by == 0.0) continue;
      for (std::int64_t j = 0; j < n; ++j) {
        a(i, j) -= by * a(k, j);
        out.inverse(i, j) -= by * out.inverse(k, j);
      }
    }
  }
  return out;
}

/// Both triangles of values laid out as a symmetric matrix says; its scale is left out.
inline Dense expanded(const SYMMETRIC& s, const double* values)
{
  Dense out(s.n, s.n);
  for (std::int64_t j = 0; j < s.n; ++j) {
    switch (s.shape) {
      case Shape::identity:
        out(j, j) = 1.0;
        break;
      case Shape::diagonal:
        out(j, j) = values[j];
        break;
      case Shape::banded:
        for (std::int64_t d = 0; d <= s.bandwidth && j + d < s.n; ++d)
          out(j + d, j) = out(j, j + d) = values[d * s.n + j];
        break;
      case Shape::dense:
        for (std::int64_t i = 0; i < s.n; ++i) out(i, j) = values[i + j * s.n];
        break;
      case Shape::sparse:
        for (std::int64_t at = s.start[j]; at < s.start[j + 1]; ++at)
          out(s.row[at], j) = out(j, s.row[at]) = values[at];
        break;
    }
  }
  return out;
}

/// A symmetric matrix laid out as another one's values; elements outside the pattern are left out.
inline Vector laid_out(const SYMMETRIC& s, const Dense& full)
{
  Vector out(static_cast<std::size_t>(s.stored()), 0.0);
  for (std::int64_t j = 0; j < s.n; ++j) {
    switch (s.shape) {
      case Shape::identity:
        out[0] += full(j, j);
        break;
      case Shape::diagonal:
        out[static_cast<std::size_t>(j)] = full(j, j);
        break;
      case Shape::banded:
        for (std::int64_t d = 0; d <= s.bandwidth && j + d < s.n; ++d)
          out[static_cast<std::size_t>(d * s.n + j)] = full(j + d, j);
        break;
      case Shape::dense:
        for (std::int64_t i = 0; i < s.n; ++i) out[static_cast<std::size_t>(i + j * s.n)] = full(i, j);
        break;
      case Shape::sparse:
        for (std::int64_t at = s.start[j]; at < s.start[j + 1]; ++at)
          out[static_cast<std::size_t>(at)] = full(s.row[at], j);
        break;
    }
  }
  return out;
}

/// Random numbers that are the same everywhere.
class Dice {
 public:
  explicit Dice(std::uint32_t seed) : engine_(seed) {}
  double uniform(double from, double to)
  {
    return from + (to - from) * (static_cast<double>(engine_()) + 0.5) / 4294967296.0;
  }
  Vector vector(std::int64_t n, double from = -1.0, double to = 1.0)
  {
    Vector out(static_cast<std::size_t>(n));
    for (double& x : out) x = uniform(from, to);
    return out;
  }
  Dense symmetric(std::int64_t n)
  {
    Dense out(n, n);
    for (std::int64_t j = 0; j < n; ++j) {
      for (std::int64_t i = j; i < n; ++i) out(i, j) = out(j, i) = uniform(-1.0, 1.0);
    }
    return out;
  }

 private:
  std::mt19937 engine_;
};

}  // namespace tolvan
