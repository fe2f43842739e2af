// What the elements of a matrix from outside may be, wherever they come from, and how large it may get.
// Routine: L_TAKE_ELEMENT.
#include <algorithm>
#include <cmath>
#include <limits>

#include "base/memory.h"
#include "base/text.h"
#include "relmat/matrix_input.h"

namespace tolvan {

bool L_TAKE_ELEMENT(ERROR_HANDLER& eh, double row, double column, double value, std::int64_t number,
                    MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  constexpr double most = std::numeric_limits<std::int32_t>::max();
  const bool whole = row == std::trunc(row) && column == std::trunc(column);
  if (!whole || !(column >= 1.0) || !(row >= column) || !(row <= most) || !std::isfinite(value)) {
    eh.error(text("sparse format of matrix looks incorrect for the ", number, " entry"));
    return false;
  }
  const auto i = static_cast<std::int64_t>(row);
  if (i > out.order) {
    out.order = i;
    out.highest_entry = number;
  }
  if (value == 0.0) return true;
  out.row.push_back(static_cast<std::int32_t>(row));
  out.column.push_back(static_cast<std::int32_t>(column));
  out.values.push_back(value);
  return true;
}

bool order_is_sound(ERROR_HANDLER& eh, const MATRIX_INPUT& matrix)
{
  // Rows may lack elements, those of levels without data; but a number that went astray must not take all memory.
  constexpr std::int64_t rows_for_an_element = 100;
  constexpr std::int64_t always_allowed = 100000;
  if (matrix.order <= always_allowed || matrix.order / rows_for_an_element <= std::ssize(matrix.values)) return true;
  eh.error(text("sparse format of matrix looks incorrect for the ", matrix.highest_entry, " entry"));
  eh.continuation(text("it is in row ", matrix.order, " of a matrix with ", std::ssize(matrix.values), " elements"));
  return false;
}

bool room_for_dense(ERROR_HANDLER& eh, std::int64_t order, bool may_grow, std::vector<double>& a)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t worth_telling = 5000;
  constexpr double bytes_of_a_megabyte = 1048576.0;
  std::int64_t bytes = 0;
  const bool fits = multiply_sizes(order, order, bytes) && multiply_sizes(bytes, sizeof(double), bytes);
  const std::int64_t machine = machine_memory_bytes();
  if (!fits || bytes > machine) {
    eh.out_of_memory(fits ? bytes : -1);
    eh.continuation(text("for a dense matrix of order ", order));
    return false;
  }
  if (order >= worth_telling) {
    eh.note(text("a dense matrix of order ", order, " takes ",
                 std::llround(static_cast<double>(bytes) / bytes_of_a_megabyte),
                 " MB; where it is inverted this is done in place"));
  }
  const std::int64_t with_growth = may_grow ? std::min(bytes, machine / 4) * 4 / static_cast<std::int64_t>(sizeof(double)) : 0;
  if (with_growth > order * order && attempt([&] { a.reserve(static_cast<std::size_t>(with_growth)); })) return true;
  return reserve(eh, a, order * order);
}

void check_square(ERROR_HANDLER& eh, MATRIX_INPUT& matrix)
{
  const Frame here{eh, __func__};
  constexpr double relative = 1e-5;  // of what the diagonals allow: files have few digits
  constexpr std::int64_t tile = 64;
  const std::int64_t n = matrix.order;
  double* a = matrix.values.data();
  for (std::int64_t j0 = 0; j0 < n; j0 += tile) {
    for (std::int64_t i0 = j0; i0 < n; i0 += tile) {
      for (std::int64_t j = j0; j < std::min(j0 + tile, n); ++j) {
        for (std::int64_t i = std::max(i0, j); i < std::min(i0 + tile, n); ++i) {
          double& lower = a[i + j * n];
          double& upper = a[j + i * n];
          if (!std::isfinite(lower) || !std::isfinite(upper)) {
            eh.error(text("element (", i + 1, ",", j + 1, ") of the matrix from ", matrix.origin,
                          " is not finite"));
            return;
          }
          if (lower == upper) continue;
          const double size =
              std::max({std::abs(lower), std::abs(upper), std::sqrt(std::abs(a[i + i * n] * a[j + j * n]))});
          if (!(std::abs(lower - upper) <= relative * size)) {
            eh.error(text("the matrix from ", matrix.origin, " is not symmetric: element (", i + 1, ",",
                          j + 1, ") is ", lower, ", element (", j + 1, ",", i + 1, ") is ", upper));
            return;
          }
          lower = upper = 0.5 * (lower + upper);
        }
      }
    }
  }
}

}  // namespace tolvan
