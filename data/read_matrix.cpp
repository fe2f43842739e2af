#include "data/read_matrix.h"

#include <cmath>

#include "base/text.h"
#include "data/transform_record.h"

namespace tolvan {

namespace {

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
  const std::int64_t level = level_of_value(variables, coding, v, x);
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
  L_CALCULATE_LREAD(eh, matrix.data->columns, variables);
  if (eh.terminate()) return;
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
