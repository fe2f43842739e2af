// Matrices that were handed in.  Routines: L_COPY_SPARSE_FROM_UDSTORE, L_COPY_DENSE_FROM_UDSTORE.
#include <algorithm>
#include <limits>

#include "base/memory.h"
#include "base/numbers.h"
#include "base/text.h"
#include "relmat/matrix_input.h"

namespace tolvan {
namespace {

/// The size of a dataset as it is described; what is not described is as it was handed in.
std::int64_t rows_of(const DATASET_VIEW& data)
{
  return data.info.number_of_observations > 0 ? data.info.number_of_observations : data.data->rows;
}
std::int64_t columns_of(const DATASET_VIEW& data)
{
  return data.info.number_of_variables > 0 ? data.info.number_of_variables : data.data->columns;
}

}  // namespace

void L_COPY_SPARSE_FROM_UDSTORE(ERROR_HANDLER& eh, const DATASET_VIEW& data, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = rows_of(data);
  constexpr std::int64_t wanted = 3;
  if (const std::int64_t columns = columns_of(data); columns != wanted) {
    eh.error(
        text("was expecting 3 columns holding the row indices, the column indices and the values (in that "
             "order), number of "
             "columns supplied i was ",  // sic
             columns));
    return;
  }
  out.form = MatrixForm::sparse;
  if (!reserve(eh, out.row, n) || !reserve(eh, out.column, n) || !reserve(eh, out.values, n)) return;
  for (std::int64_t k = 0; k < n; ++k) {
    const double row = data.value(k, 0);
    const double column = data.value(k, 1);
    const double value =
        is_no_value(data.value(k, 2)) ? std::numeric_limits<double>::quiet_NaN() : data.value(k, 2);
    if (!L_TAKE_ELEMENT(eh, row, column, value, k + 1, out)) return eh.continuation(text("dataset ", out.origin));
  }
  if (!order_is_sound(eh, out)) eh.continuation(text("dataset ", out.origin));
}

void L_COPY_DENSE_FROM_UDSTORE(ERROR_HANDLER& eh, const DATASET_VIEW& data, MATRIX_INPUT& out)
{
  const Frame here{eh, __func__};
  const std::int64_t n = rows_of(data);
  if (n != columns_of(data)) {
    eh.error(text("the matrix from ", out.origin, " is not square: it has ", n, " rows and ",
                  columns_of(data), " columns"));
    return;
  }
  out.form = MatrixForm::dense;
  out.order = n;
  if (!room_for_dense(eh, n, out.may_grow, out.values) || !assign(eh, out.values, n * n)) return;
  for (std::int64_t j = 0; j < n; ++j) {
    for (std::int64_t i = 0; i < n; ++i) {
      const double x = data.value(i, j);
      out.values[static_cast<std::size_t>(i + j * n)] =
          is_no_value(x) ? std::numeric_limits<double>::quiet_NaN() : x;
    }
  }
  check_square(eh, out);
  if (eh.terminate()) return;
  bool counts = true;
  for (std::int64_t k = 0; k < std::ssize(data.info.variables); ++k) {
    const std::string& label = data.info.variables[static_cast<std::size_t>(k)];
    counts = counts && (label.empty() || label == text(k + 1));
  }
  if (!counts) out.labels = data.info.variables;
}

}  // namespace tolvan
