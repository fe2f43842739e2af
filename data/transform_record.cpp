// Transformations at work.  Routines: L_CALCULATE_LREAD, AIDTRN, CHECKTRN.
#include "data/transform_record.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"

namespace tolvan {

namespace {

/// L_STEP_FAILED: the complaint about a value with which an operation can do nothing.
void L_STEP_FAILED(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const TRANSFORM_STEP& step,
                   TransformOutcome outcome, double x, std::int64_t record)
{
  const Frame here{eh, __func__};
  if (outcome == TransformOutcome::invalid_date) {
    eh.error(text("invalid date: ", x));
  } else {
    eh.error(text("invalid marker: ", x));
    eh.continuation("DOM takes codes from -1 to 1, with the argument 2 codes from 0 to 2");
  }
  eh.continuation(text("transformation ", step.name, " of variable ", variables.rows[step.source].name,
                       " in data record ", record));
}

/// L_CODE_TRANSFORMED: turns the number of a factor that transformations touch into its level.
void L_CODE_TRANSFORMED(ERROR_HANDLER& eh, VARIABLE_TABLE& variables, LEVEL_CODING& coding, std::size_t v,
                        std::int64_t record, double& x)
{
  VARIABLE_CODING& coded = coding.variables[v];
  if (is_no_value(x)) return;
  std::int64_t level = 0;
  if (coded.after != Coding::variate) {
    level = level_of_value(variables, coding, v, x);
  } else if (x >= 1.0 && x <= static_cast<double>(most_levels) && x == std::floor(x)) {
    level = static_cast<std::int64_t>(x);  // a level number already
    if (level > coded.highest) coded.highest = level;
  }
  if (level > 0) {
    x = static_cast<double>(level);
    return;
  }
  const Frame here{eh, __func__};
  eh.error(text("transformations make an invalid level of ", variables.rows[v].name, " in data record ",
                record, ": ", x, level_fault(coded, x)));
}

}  // namespace

void L_CALCULATE_LREAD(ERROR_HANDLER& eh, std::int64_t columns, VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  TRANSFORM_PROGRAM& program = variables.transformations;
  const std::size_t width = variables.rows.size();
  for (const TRANSFORM_STEP& step : program.steps) {
    const bool in_row = step.source < width && step.target < width &&
                        (step.operand < width || step.operand == TRANSFORM_STEP::no_column) &&
                        step.first_value + step.value_count <= program.values.size();
    if (in_row && step.code > TransformCode::none && step.code <= TransformCode::last) continue;
    eh.internal("check the assign op codes");
    return;
  }
  const std::vector<bool> written = program.written(width);
  const std::vector<bool> written_first = program.written_first(width);
  if (columns == 0) {
    for (std::size_t v = 0; v < width; ++v) {
      if (!written_first[v]) columns = std::max(columns, variables.rows[v].column);
    }
  }
  program.made.clear();
  for (std::size_t v = 0; v < width; ++v) {
    VARIABLE& variable = variables.rows[v];
    if (written_first[v] && !variable.column_given && variable.column > columns) variable.column = 0;
    if (variable.column > 0) continue;
    if (!written[v]) {
      eh.error(
          text("variable ", variable.name, " is in no column of the data and no transformation makes it"));
      return;
    }
    program.made.push_back(v);
  }
}

bool AIDTRN(ERROR_HANDLER& eh, VARIABLE_TABLE& variables, LEVEL_CODING& coding, std::int64_t record,
            std::span<double> row)
{
  TRANSFORM_PROGRAM& program = variables.transformations;
  if (program.empty()) return true;
  const Frame here{eh, __func__};
  for (const std::size_t v : program.made) row[v] = 0.0;
  for (TRANSFORM_STEP& step : program.steps) {
    const double x = row[step.source];
    const double a = step.operand == TRANSFORM_STEP::no_column ? step.number : row[step.operand];
    if ((is_no_value(x) || is_no_value(a)) && !handles_missing(step.code)) {
      row[step.target] = no_value;
      continue;
    }
    const std::span<const double> values{program.values.data() + step.first_value, step.value_count};
    double made = no_value;
    switch (const TransformOutcome outcome = PDCODE(step, x, a, values, program.random, made); outcome) {
      case TransformOutcome::value:
        if (!drops_records(step.code)) row[step.target] = made;
        break;
      case TransformOutcome::missing:
        row[step.target] = no_value;
        break;
      case TransformOutcome::undefined:
        row[step.target] = no_value;
        ++step.undefined;
        break;
      case TransformOutcome::drop:
        ++program.dropped;
        return false;
      case TransformOutcome::invalid_date:
      case TransformOutcome::out_of_range:
        L_STEP_FAILED(eh, variables, step, outcome, x, record);
        return false;
    }
  }
  for (const std::size_t v : coding.transformed) {
    L_CODE_TRANSFORMED(eh, variables, coding, v, record, row[v]);
    if (eh.terminate()) return false;
  }
  return true;
}

void CHECKTRN(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  const TRANSFORM_PROGRAM& program = variables.transformations;
  std::vector<bool> told(variables.rows.size(), false);
  for (const TRANSFORM_STEP& step : program.steps) {
    const VARIABLE& target = variables.rows[step.target];
    const bool passed_over = !target.column_given && target.place <= variables.source_columns;
    if (drops_records(step.code) || told[step.target] || (target.column == 0 && !passed_over)) continue;
    eh.note(text("a transformation is overwriting input variable ", target.name));
    told[step.target] = true;
  }
  for (const TRANSFORM_STEP& step : program.steps) {
    if (step.undefined == 0) continue;
    eh.warning(text("in ", step.undefined, " records the transformation ", step.name, " of variable ",
                    variables.rows[step.source].name, " has no value, the result is missing"));
  }
  if (program.dropped > 0) eh.note(text(program.dropped, " records were dropped by transformations"));
}

}  // namespace tolvan
