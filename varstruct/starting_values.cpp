// Starting variances from the responses.  Routine: STARTE.
#include "varstruct/starting_values.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"

namespace tolvan {

namespace {

constexpr double least_variance = 1e-5;
constexpr double least_share = 1e-24;  // of a response's mean square: a smaller variance is rounding
constexpr double filled_mark = -0.000919191;  // by which later code knows that the array was filled here

std::size_t packed(std::size_t i, std::size_t j)
{
  return i * (i + 1) / 2 + j;
}  // j at most i, both from 0

/// Covariance of two responses over the records that have both, with divisor m; 0 when there are none.
/// Two passes: the products of raw values lose all digits when the mean is large.
double covariance(const std::vector<double>& a, const std::vector<double>& b)
{
  const std::size_t n = std::min(a.size(), b.size());
  double sum_a = 0.0, sum_b = 0.0, m = 0.0;
  for (std::size_t k = 0; k < n; ++k) {
    if (is_no_value(a[k]) || is_no_value(b[k])) continue;
    sum_a += a[k];
    sum_b += b[k];
    m += 1.0;
  }
  if (m <= 0.0) return 0.0;
  const double mean_a = sum_a / m, mean_b = sum_b / m;
  double products = 0.0;
  for (std::size_t k = 0; k < n; ++k) {
    if (is_no_value(a[k]) || is_no_value(b[k])) continue;
    products += (a[k] - mean_a) * (b[k] - mean_b);
  }
  return products / m;
}

/// The mean square of the values present.
double mean_square(const std::vector<double>& y)
{
  double sum = 0.0, m = 0.0;
  for (const double v : y) {
    if (is_no_value(v)) continue;
    sum += v * v;
    m += 1.0;
  }
  return m > 0.0 ? sum / m : 0.0;
}

/// L_CHECK_PIVOTS: sweeps the covariance matrix from the last trait upward and warns of traits that the
/// others explain.
void L_CHECK_PIVOTS(ERROR_HANDLER& eh, std::vector<double> v, const std::vector<std::string>& names)
{
  const Frame here{eh, __func__};
  for (std::size_t k = names.size(); k-- > 0;) {
    const double pivot = v[packed(k, k)];
    if (pivot <= least_variance) {
      eh.warning(text("variance of ", names[k], " adjusted for other traits is  ", edit_g(pivot, 15, 6),
                      ", standard multivariate analysis may fail"));
      continue;
    }
    for (std::size_t i = 0; i < k; ++i) {
      for (std::size_t j = 0; j <= i; ++j) v[packed(i, j)] -= v[packed(k, i)] * v[packed(k, j)] / pivot;
    }
  }
}

}  // namespace

void STARTE(ERROR_HANDLER& eh, double residual_fraction, double term_fraction,
            const std::vector<std::vector<double>>& traits, const std::vector<std::string>& names,
            std::vector<double>& starting)
{
  const Frame here{eh, __func__};
  double a = residual_fraction, b = term_fraction;
  if (!(a >= 0.5 && a <= 1.0)) a = wide(0.9f);
  if (!(b >= 0.1 && b <= a)) b = wide(0.9f) * a;

  const std::size_t t = traits.size();
  starting.assign(t * (t + 1) / 2 + 1, 0.0);
  std::vector<double> plain(starting.size(), 0.0);  // the covariances themselves
  for (std::size_t i = 0; i < t; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      plain[packed(i, j)] = covariance(traits[i], traits[j]);
      starting[packed(i, j)] = plain[packed(i, j)] * (i == j ? a : b);
    }
    const auto count = static_cast<std::int64_t>(
        std::count_if(traits[i].begin(), traits[i].end(), [](double y) { return !is_no_value(y); }));
    if (count == 0) {
      eh.error(text("all data is missing for trait ", names[i]));
      return;
    }
    if (static_cast<double>(count) < static_cast<double>(traits[i].size()) * wide(0.01f)) {
      eh.warning(text("for trait ", names[i], " only ", count, " records have data"));
    }
    if (const double variance = plain[packed(i, i)]; variance <= least_variance) {
      eh.warning(text("variance of ", names[i], " is ", edit_g(variance, 15, 6),
                      ", the analysis is likely to fail"));
      // A response in small units has a small variance and fits as well as any other; only what is lost in rounding is replaced.
      if (!(variance > least_share * mean_square(traits[i]))) plain[packed(i, i)] = starting[packed(i, i)] = least_variance;
    }
  }
  if (t > 1) L_CHECK_PIVOTS(eh, plain, names);
  starting.back() = filled_mark;
}

}  // namespace tolvan
