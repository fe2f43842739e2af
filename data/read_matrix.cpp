#include "data/read_matrix.h"

#include <cmath>

#include "base/text.h"
#include "data/transform_record.h"

namespace tolvan {

namespace {

constexpr double largest_code = 9007199254740992.0;  // 2^53: whole numbers are exact up to here

/// What is wrong with a value that is no level of its factor.
std::string_view level_fault(const VARIABLE_CODING& coded, double x)
{
  if (x != std::floor(x)) return " is not a whole number";
  if (std::abs(x) > largest_code || x - static_cast<double>(coded.shift) > static_cast<double>(most_levels)) {
    return " is too large for a level";
  }
  return " is below the first level";
}

/// L_CODE_VALUE: the number of the working row for one value of the matrix.
double L_CODE_VALUE(ERROR_HANDLER& eh, const DATASET_VIEW& matrix, std::int64_t record, std::size_t v,
                    double x, VARIABLE_TABLE& variables, LEVEL_CODING& coding)
{
  const Frame here{eh, __func__};
  const VARIABLE& variable = variables.rows[v];
  if (std::isinf(x)) {
    eh.error(text("infinite value in dataset ", matrix.info.name, ", variable ", variable.name, ", record ",
                  record));
    return no_value;
  }
  const VARIABLE_CODING& coded = coding.variables[v];
  std::int64_t level = 0;
  if (x == std::floor(x) && std::abs(x) <= largest_code) {
    level = level_of_number(variables, coding, v, static_cast<std::int64_t>(x));
  }
  if (level > 0) return static_cast<double>(level);
  eh.error(text("invalid level in dataset ", matrix.info.name, ", variable ", variable.name, ", record ",
                record, ": ", x, level_fault(coded, x)));
  return no_value;
}

}  // namespace

void L_READ_MATRIX(ERROR_HANDLER& eh, const DATASET_VIEW& matrix, VARIABLE_TABLE& variables,
                   LEVEL_CODING& coding, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  for (const VARIABLE& variable : variables.rows) {
    if (variable.column > matrix.data->columns) {
      eh.error(text("variable ", variable.name, " is said to be column ", variable.column, " of dataset ",
                    matrix.info.name, ", which has ", matrix.data->columns, " columns"));
      return;
    }
  }
  std::vector<double> row(variables.rows.size());
  for (std::int64_t i = 0; i < matrix.info.number_of_observations; ++i) {
    for (std::size_t v = 0; v < row.size(); ++v) {
      const std::int64_t column = variables.rows[v].column;
      const double x = column > 0 ? matrix.value(i, column - 1) : no_value;
      const bool plain = coding.variables[v].coding == Coding::variate && std::isfinite(x);
      row[v] = plain || is_no_value(x) ? x : L_CODE_VALUE(eh, matrix, i + 1, v, x, variables, coding);
      if (eh.terminate()) return;
    }
    const bool kept = AIDTRN(eh, variables, coding, i + 1, row);
    if (eh.terminate()) return;
    if (kept) DST_WRITE_ROW(eh, store, row);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
