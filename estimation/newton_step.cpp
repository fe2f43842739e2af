// The joint Newton step of the variance parameters.  Routines: solve_step, reduced_information.
#include "estimation/newton_step.h"

#include <algorithm>
#include <cmath>

#include "base/lapack.h"

namespace tolvan {
namespace {

/// b becomes A^-1 b for many parameters at once; false, with both as they were, where a pivot is lost.
bool solve_blocked(const std::vector<double>& a, std::vector<double>& b)
{
  const auto n = static_cast<std::int64_t>(b.size());
  std::vector<double> l = a;
  if (dpotrf('L', n, l.data(), n) != 0) return false;
  for (std::int64_t i = 0; i < n; ++i) {
    const auto at = static_cast<std::size_t>(i + i * n);
    if (l[at] * l[at] <= (std::fabs(a[at]) + 1e-9) * 1e-8) return false;
  }
  dtrsm('L', 'L', 'N', 'N', n, 1, 1.0, l.data(), n, b.data(), n);
  dtrsm('L', 'L', 'T', 'N', n, 1, 1.0, l.data(), n, b.data(), n);
  return true;
}

}  // namespace

void solve_step(const INFORMATION& information, const std::vector<std::uint8_t>& open, const std::vector<double>& taken,
                std::vector<double>& delta)
{
  std::vector<std::size_t> o;
  const auto k = static_cast<std::size_t>(information.count());
  for (std::size_t i = 0; i < k; ++i) {
    if (open[i]) o.push_back(i);
  }
  const auto n = o.size();
  std::vector<double> a(n * n);
  std::vector<double> b(n);
  const auto ai = [&](std::size_t i, std::size_t j) {
    return information.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j));
  };
  for (std::size_t i = 0; i < n; ++i) {
    b[i] = information.score[o[i]];
    for (std::size_t h = 0; h < k; ++h) {
      if (!open[h] && taken[h] != 0.0) b[i] -= ai(o[i], h) * taken[h];
    }
    for (std::size_t j = 0; j < n; ++j) a[i * n + j] = ai(o[i], o[j]);
  }
  if (n >= many_parameters && solve_blocked(a, b)) {
    for (std::size_t i = 0; i < n; ++i) delta[o[i]] = b[i];
    return;
  }
  // Cholesky of the open block; a lost pivot leaves that parameter where it is.
  std::vector<std::uint8_t> good(n, 1);
  for (std::size_t i = 0; i < n; ++i) {
    const double tolerance = (std::fabs(a[i * n + i]) + 1e-9) * 1e-9;
    for (std::size_t j = 0; j <= i; ++j) {
      if (!good[j]) continue;
      double sum = a[i * n + j];
      for (std::size_t m = 0; m < j; ++m) {
        if (good[m]) sum -= a[i * n + m] * a[j * n + m];
      }
      if (j < i) {
        a[i * n + j] = sum / a[j * n + j];
      } else if (sum > tolerance) {
        a[i * n + i] = std::sqrt(sum);
      } else {
        good[i] = 0;
      }
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (!good[i]) continue;
    for (std::size_t m = 0; m < i; ++m) {
      if (good[m]) b[i] -= a[i * n + m] * b[m];
    }
    b[i] /= a[i * n + i];
  }
  for (std::size_t i = n; i-- > 0;) {
    if (!good[i]) {
      b[i] = 0.0;
      continue;
    }
    for (std::size_t m = i + 1; m < n; ++m) {
      if (good[m]) b[i] -= a[m * n + i] * b[m];
    }
    b[i] /= a[i * n + i];
  }
  for (std::size_t i = 0; i < n; ++i) delta[o[i]] = b[i];
}

bool reduced_information(const INFORMATION& information, const std::vector<std::uint8_t>& open, const std::vector<std::size_t>& inside,
                         std::vector<double>& s)
{
  std::vector<std::size_t> others;
  for (std::size_t i = 0; i < open.size(); ++i) {
    if (open[i] && !std::binary_search(inside.begin(), inside.end(), i)) others.push_back(i);
  }
  const auto m = static_cast<std::int64_t>(inside.size()), o = static_cast<std::int64_t>(others.size());
  const auto block = [&](const std::vector<std::size_t>& rows, const std::vector<std::size_t>& columns) {
    std::vector<double> a;
    a.reserve(rows.size() * columns.size());
    for (const std::size_t j : columns) {
      for (const std::size_t i : rows) a.push_back(information.at(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j)));
    }
    return a;
  };
  s = block(inside, inside);
  if (o == 0) return true;
  std::vector<double> a = block(others, others), b = block(others, inside);
  if (dpotrf('L', o, a.data(), o) != 0) return false;
  dtrsm('L', 'L', 'N', 'N', o, m, 1.0, a.data(), o, b.data(), o);
  dgemm('T', 'N', m, m, o, -1.0, b.data(), o, b.data(), o, 1.0, s.data(), m);
  return true;
}

}  // namespace tolvan
