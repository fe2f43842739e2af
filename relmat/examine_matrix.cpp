#include "relmat/examine_matrix.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/memory.h"
#include "base/packed.h"
#include "base/text.h"

namespace tolvan {
namespace {

/// Calls for each element below the diagonal that is not 0: row and column from 0.
template <class Visit>
void each_covariance(const MATRIX_INPUT& m, Visit&& visit)
{
  if (m.form == MatrixForm::dense) {
    for (std::int64_t j = 0; j < m.order; ++j) {
      for (std::int64_t i = j + 1; i < m.order; ++i) {
        const double x = m.values[static_cast<std::size_t>(i + j * m.order)];
        if (x != 0.0) visit(i, j, x);
      }
    }
  } else if (m.form == MatrixForm::sparse) {
    for (std::size_t k = 0; k < m.values.size(); ++k) {
      if (m.row[k] != m.column[k]) visit(m.row[k] - 1, m.column[k] - 1, m.values[k]);
    }
  }
}

/// L_DIAGONAL: the diagonal of a matrix in any form.
void L_DIAGONAL(ERROR_HANDLER& eh, const MATRIX_INPUT& m, std::vector<double>& d)
{
  const Frame here{eh, __func__};
  if (!assign(eh, d, m.order)) return;
  if (m.form == MatrixForm::diagonal) std::copy(m.values.begin(), m.values.end(), d.begin());
  for (std::int64_t k = 0; k < m.order && m.form == MatrixForm::dense; ++k)
    d[static_cast<std::size_t>(k)] = m.values[static_cast<std::size_t>(k + k * m.order)];
  for (std::size_t k = 0; k < m.values.size() && m.form == MatrixForm::sparse; ++k) {
    if (m.row[k] == m.column[k]) d[static_cast<std::size_t>(m.row[k] - 1)] = m.values[k];
  }
}

}  // namespace

DIAGONAL_COUNTS L_EXAMINE(ERROR_HANDLER& eh, const MATRIX_INPUT& matrix, double criterion)
{
  const Frame here{eh, __func__};
  DIAGONAL_COUNTS counts;
  std::vector<double> d;
  std::vector<std::int32_t> partner;  // a row with whom a row with a zero diagonal has an element; -1: none
  L_DIAGONAL(eh, matrix, d);
  if (eh.terminate() || !assign(eh, partner, matrix.order, -1)) return counts;

  std::int64_t overlarge = 0;
  constexpr double rounding = 1e-9;
  each_covariance(matrix, [&](std::int64_t i, std::int64_t j, double x) {
    const double di = d[static_cast<std::size_t>(i)];
    const double dj = d[static_cast<std::size_t>(j)];
    if (std::abs(di) < zero_diagonal) partner[static_cast<std::size_t>(i)] = static_cast<std::int32_t>(j);
    if (std::abs(dj) < zero_diagonal) partner[static_cast<std::size_t>(j)] = static_cast<std::int32_t>(i);
    if (!(di > 0.0 && dj > 0.0) || std::abs(x) <= std::sqrt(di * dj) * (1.0 + rounding)) return;
    if (++overlarge <= most_lines)
      eh.warning(
          text("overlarge covariance X[", i + 1, ",", j + 1, "] = ABS(", x, ") > SQRT(", di, " ", dj, ")"));
  });
  if (overlarge > 0) eh.warning(text(overlarge, " overlarge covariances detected"));

  std::int64_t told = 0;
  for (std::int64_t k = 0; k < matrix.order; ++k) {
    const double x = d[static_cast<std::size_t>(k)];
    const std::int32_t other = partner[static_cast<std::size_t>(k)];
    if (std::abs(x) < zero_diagonal) {
      ++counts.zero;
      counts.zero_rows += other < 0 ? 1 : 0;
      if (other >= 0 && ++told <= most_lines)
        eh.warning(text("zero diagonal in row ", k + 1, " but non-zero element in column ", other + 1));
    } else if (x < 0.0) {
      counts.lowest = counts.negative == 0 ? x : std::min(counts.lowest, x);
      counts.highest_negative = counts.negative == 0 ? x : std::max(counts.highest_negative, x);
      ++counts.negative;
      if (++told <= most_lines) eh.warning(text("negative diagonal in row ", k + 1, ", value = ", x));
    } else if (x < criterion) {
      ++counts.near_zero;
      if (++told <= most_lines) {
        eh.warning(text("|diagonal| < ", criterion, " in row ", k + 1));
        if (counts.near_zero == 1) eh.continuation(text("singularity check criterion value is ", criterion));
      }
    }
  }
  if (counts.negative + counts.near_zero > 0 || counts.zero > counts.zero_rows) {
    eh.warning(text("this matrix has ", counts.negative, " negative, ", counts.near_zero, " near zero and ",
                    counts.zero, " zero values on the diagonal"));
  }
  return counts;
}

void L_SUMMARY(ERROR_HANDLER& eh, std::string_view name, const double* a, std::int64_t n, std::int64_t lda)
{
  const Frame here{eh, __func__};
  double low = a[0];
  double high = a[0];
  double trace = 0.0;
  double covariance = 0.0;
  std::int64_t zeros = 0;
  for (std::int64_t j = 0; j < n; ++j) {
    const double d = a[j + j * lda];
    low = std::min(low, d);
    high = std::max(high, d);
    trace += d;
    double sum = 0.0;
    for (std::int64_t i = j + 1; i < n; ++i) {
      sum += a[i + j * lda];
      zeros += a[i + j * lda] == 0.0 ? 1 : 0;
    }
    covariance += sum;
  }
  const auto pairs = static_cast<double>(std::max<std::int64_t>(packed_size(n) - n, 1));
  const auto shown = [](double x) { return std::string(trim(edit(x, "G12.5"))); };
  eh.note(text("Min Mean Max of diag(", name, ") is ", shown(low), " ", shown(trace / static_cast<double>(n)),
               " ", shown(high), ", Average Covariance: ", shown(covariance / pairs), ", ",
               trim(edit(100.0 * static_cast<double>(zeros) / pairs, "F5.1")), "% of covariances are zero"));
}

}  // namespace tolvan
