// Routines: L_FILL_COLUMNS, L_FILL_COVARIATES.
#include "relmat/marker_columns.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <span>

#include "base/memory.h"

namespace tolvan {
namespace {

using FOUR = std::array<double, 4>;             // something of each code
using COUNTS = std::array<std::int64_t, 4>;

constexpr unsigned code_of(std::uint8_t byte, std::int64_t place)
{
  return (byte >> (2 * place)) & 3U;
}

/// How often each code stands in a column of n genotypes.
COUNTS count_codes(const std::uint8_t* column, std::int64_t n)
{
  constexpr std::uint64_t low_bits = 0x5555555555555555U;
  constexpr std::int64_t per_word = 32;
  std::int64_t missing = 0, one = 0, none = 0;
  const auto add = [&](std::uint64_t word) {
    const std::uint64_t low = word & low_bits;
    const std::uint64_t high = (word >> 1U) & low_bits;
    none += std::popcount(low & high);
    missing += std::popcount(low & ~high);
    one += std::popcount(high & ~low);
  };
  std::int64_t i = 0;
  for (; i + per_word <= n; i += per_word) {
    std::uint64_t word = 0;
    std::memcpy(&word, column + i / 4, sizeof word);
    add(word);
  }
  for (; i < n; i += 4) {
    const unsigned of_use = n - i >= 4 ? 0xFFU : (1U << (2 * (n - i))) - 1U;
    add(column[i / 4] & of_use);
  }
  return {n - missing - one - none, missing, one, none};
}

/// The column with a value in place of each code.
void decode(const std::uint8_t* column, std::int64_t n, const FOUR& value, double* z)
{
  double pairs[16][2];
  for (unsigned k = 0; k < 16; ++k) {
    pairs[k][0] = value[k & 3U];
    pairs[k][1] = value[k >> 2U];
  }
  std::int64_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const std::uint8_t byte = column[i / 4];
    std::memcpy(z + i, pairs[byte & 15U], sizeof pairs[0]);
    std::memcpy(z + i + 2, pairs[byte >> 4U], sizeof pairs[0]);
  }
  for (; i < n; ++i) z[i] = value[code_of(column[i / 4], i % 4)];
}

/// What is taken off a column whose mean is known.
double centre_of(const MARKER_KEYS& keys, double mean)
{
  switch (keys.centring) {
    case Centring::by_method:
      return (keys.method == RelationshipMethod::dominance ? 0.0 : mean) + keys.offset;
    case Centring::means:
      return mean + keys.offset;
    case Centring::value:
      return keys.centre + keys.offset;
    case Centring::none:
      break;
  }
  return keys.offset;
}

/// Completes a column whose mean, expected and missing are known.
///   variance   of w over all genotypes
void set_scale(const MARKER_KEYS& keys, bool known, double mean, double variance, MARKER_COLUMN& column)
{
  column.centre = centre_of(keys, mean);
  const auto inverse_root = [](double x) { return x > 0.0 ? 1.0 / std::sqrt(x) : 0.0; };
  if (!known) {
    column.scale = 0.0;
  } else if (keys.scale_mode == 2) {
    column.scale = inverse_root(variance);
  } else {
    column.scale = keys.method == RelationshipMethod::standardised ? inverse_root(column.expected) : 1.0;
  }
}

/// A column of codes: what it is, and the values of Z in their place.
FOUR values_of_codes(const MARKER_KEYS& keys, const COUNTS& counts, MARKER_COLUMN& column)
{
  const std::int64_t genotypes = counts[two_copies] + counts[missing_code] + counts[one_copy] + counts[no_copy];
  const std::int64_t known = genotypes - counts[missing_code];
  const auto two = static_cast<double>(counts[two_copies]);
  const auto one = static_cast<double>(counts[one_copy]);
  const auto none = static_cast<double>(counts[no_copy]);
  column.missing = counts[missing_code];
  column.low = none > 0.0 ? 0.0 : one > 0.0 ? 1.0 : 2.0;
  column.high = two > 0.0 ? 2.0 : one > 0.0 ? 1.0 : 0.0;
  column.mean = known > 0 ? (2.0 * two + one) / static_cast<double>(known) : 0.0;
  const double p = 0.5 * column.mean;
  const double q = 1.0 - p;
  column.expected = 2.0 * p * q;

  FOUR w = {2.0, 0.0, 1.0, 0.0};
  if (keys.method == RelationshipMethod::dominance) w = {-2.0 * q * q, 0.0, 2.0 * p * q, -2.0 * p * p};
  const double mean =
      known > 0 ? (two * w[two_copies] + one * w[one_copy] + none * w[no_copy]) / static_cast<double>(known) : 0.0;
  w[missing_code] = mean;
  const auto square = [&](double x) { return (x - mean) * (x - mean); };
  const double variance = (two * square(w[two_copies]) + one * square(w[one_copy]) + none * square(w[no_copy])) /
                          static_cast<double>(std::max<std::int64_t>(genotypes, 1));
  set_scale(keys, known > 0, mean, variance, column);
  for (double& x : w) x = column.scale * (x - column.centre);
  return w;
}

/// A column of numbers: what it is, and those of Z in their place.
void fill_numbers(const MARKER_KEYS& keys, bool coded, std::int64_t n, double* z, MARKER_COLUMN& column)
{
  double sum = 0.0;
  column.low = HUGE_VAL;
  column.high = -HUGE_VAL;
  for (std::int64_t i = 0; i < n; ++i) {
    if (std::isnan(z[i])) {
      ++column.missing;
      continue;
    }
    sum += z[i];
    column.low = std::min(column.low, z[i]);
    column.high = std::max(column.high, z[i]);
  }
  const std::int64_t known = n - column.missing;
  column.mean = known > 0 ? sum / static_cast<double>(known) : 0.0;
  double squares = 0.0;
  for (std::int64_t i = 0; i < n; ++i) {
    if (std::isnan(z[i])) z[i] = column.mean;
    squares += (z[i] - column.mean) * (z[i] - column.mean);
  }
  const double variance = squares / static_cast<double>(n);
  const double p = 0.5 * column.mean;
  column.expected = coded ? 2.0 * p * (1.0 - p) : variance;
  if (known == 0) column.low = column.high = 0.0;
  set_scale(keys, known > 0, column.mean, variance, column);
  for (std::int64_t i = 0; i < n; ++i) z[i] = column.scale * (z[i] - column.centre);
}

/// Copies numbers out of a table, missing ones as NaN.
void copy_numbers(const MARKER_DATA& data, std::int64_t first, std::int64_t count, double* z)
{
  const std::int64_t n = data.genotypes;
  constexpr std::int64_t tile = 16;  // columns at a time: they share cache lines where lines are genotypes
  for (std::int64_t j0 = 0; j0 < count; j0 += tile) {
    const std::int64_t j1 = std::min(j0 + tile, count);
    for (std::int64_t i = 0; i < n; ++i) {
      const std::int64_t row = data.rows.empty() ? i : data.rows[static_cast<std::size_t>(i)];
      const double* from = data.values.data() + row * data.row_step + first * data.column_step;
      for (std::int64_t j = j0; j < j1; ++j) z[i + j * n] = from[j * data.column_step];
    }
  }
}

/// L_FILL_TABLE_COLUMNS: the same for columns of one table.
void L_FILL_TABLE_COLUMNS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data, std::int64_t first,
                          std::span<MARKER_COLUMN> columns, double* z, std::vector<std::uint8_t>& bytes)
{
  const Frame here{eh, __func__};
  const std::int64_t n = data.genotypes;
  const std::int64_t count = std::ssize(columns);
  if (!data.values.empty()) {
    copy_numbers(data, first, count, z);
    for (std::int64_t j = 0; j < count; ++j)
      fill_numbers(keys, data.coded, n, z + j * n, columns[static_cast<std::size_t>(j)]);
    return;
  }
  const std::int64_t step = data.column_bytes();
  const std::uint8_t* from = nullptr;
  if (data.codes.empty()) {
    if (!resize(eh, bytes, count * step)) return;
    L_READ_BED_COLUMNS(eh, data, data.first_column + first, count, bytes.data());
    if (eh.terminate()) return;
    from = bytes.data();
  } else {
    from = data.codes.data() + first * step;
  }
  for (std::int64_t j = 0; j < count; ++j, from += step) {
    MARKER_COLUMN& column = columns[static_cast<std::size_t>(j)];
    if (data.rows.empty()) {
      const FOUR value = values_of_codes(keys, count_codes(from, n), column);
      decode(from, n, value, z + j * n);
      continue;
    }
    COUNTS counts{};
    for (const std::int64_t row : data.rows) ++counts[code_of(from[row / 4], row % 4)];
    const FOUR value = values_of_codes(keys, counts, column);
    double* to = z + j * n;
    for (const std::int64_t row : data.rows) *to++ = value[code_of(from[row / 4], row % 4)];
  }
}

}  // namespace

std::int64_t columns_of_block(const MARKER_DATA& data)
{
  constexpr std::int64_t bytes = std::int64_t{64} << 20U;
  constexpr std::int64_t least = 256;
  constexpr std::int64_t most = 2048;
  const std::int64_t fitting = bytes / (8 * std::max<std::int64_t>(data.genotypes, 1));
  return std::min(std::clamp(fitting, least, most), std::max<std::int64_t>(data.regressors, 1));
}

void L_FILL_COLUMNS(ERROR_HANDLER& eh, const MARKER_KEYS& keys, const MARKER_DATA& data, std::int64_t first,
                    std::vector<MARKER_COLUMN>& columns, double* z, std::vector<std::uint8_t>& bytes)
{
  const Frame here{eh, __func__};
  std::fill(columns.begin(), columns.end(), MARKER_COLUMN{});
  std::span<MARKER_COLUMN> left(columns);
  std::int64_t skipped = first;  // regressors ahead of those wanted
  const auto take = [&](const MARKER_DATA& table, std::int64_t regressors) {
    const std::int64_t from = std::min(skipped, regressors);
    const std::int64_t count = std::min(regressors - from, std::ssize(left));
    skipped -= from;
    if (count == 0 || eh.terminate()) return;
    L_FILL_TABLE_COLUMNS(eh, keys, table, from, left.first(static_cast<std::size_t>(count)), z, bytes);
    left = left.subspan(static_cast<std::size_t>(count));
    z += count * data.genotypes;
  };
  take(data, data.own_regressors());
  for (const MARKER_DATA& table : data.further) take(table, table.regressors);
}

void L_FILL_COVARIATES(ERROR_HANDLER& eh, const MARKER_DATA& data, std::vector<double>& values)
{
  const Frame here{eh, __func__};
  const std::int64_t n = data.genotypes;
  const std::int64_t r = data.regressors;
  std::int64_t size = 0;
  if (!multiply_sizes(n, r, size)) return eh.out_of_memory();
  MARKER_KEYS as_they_are;
  as_they_are.centring = Centring::none;
  const std::int64_t block = columns_of_block(data);
  std::vector<double> z;
  std::vector<std::uint8_t> bytes;
  std::vector<MARKER_COLUMN> columns;
  if (!assign(eh, values, size) || !assign(eh, z, n * block)) return;
  for (std::int64_t first = 0; first < r; first += block) {
    const std::int64_t count = std::min(block, r - first);
    if (!resize(eh, columns, count)) return;
    L_FILL_COLUMNS(eh, as_they_are, data, first, columns, z.data(), bytes);
    if (eh.terminate()) return;
    for (std::int64_t i = 0; i < n; ++i) {
      for (std::int64_t j = 0; j < count; ++j)
        values[static_cast<std::size_t>(i * r + first + j)] = z[static_cast<std::size_t>(i + j * n)];
    }
  }
}

}  // namespace tolvan
