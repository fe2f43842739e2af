// Forming the design.  Routine: AIDSGN.
#include <algorithm>
#include <limits>

#include "base/text.h"
#include "data/design_matrix.h"
#include "data/design_missing.h"
#include "data/design_plan.h"
#include "data/design_row.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();

/// The weight of a record, with the counts of those that are not above 0.  A missing weight counts as 0.
double weight_of(double given, DESIGN_MTX& design)
{
  if (is_no_value(given)) given = 0.0;
  if (given < 0.0) {
    ++design.negative_weights;
    return 0.0;
  }
  if (given == 0.0) ++design.zero_weights;
  return given;
}

/// L_CLOSE_MV: gives the mv term its equations, all behind those of the other terms.
void L_CLOSE_MV(ERROR_HANDLER& eh, FACTOR_TABLE& factors, TERM_TABLE& terms, const DESIGN_MTX& design,
                TERM_ROW& mv)
{
  const Frame here{eh, __func__};
  mv.equations = static_cast<std::int64_t>(design.mv.size());
  terms.equations = mv.first + mv.equations;
  const std::int64_t row = mv.components().first;
  if (row >= 1 && row <= factors.count() && factors.row(row).reserved == Reserved::mv) {
    factors.row(row).levels = mv.equations;
  }
}

/// Notes the missing values of the design columns for the trait at hand; true if there are any.
bool lacks_design_values(const DESIGN_PLAN& plan, bool response_missing, RECORD_STATE& state, MISSING_VALUES& missing)
{
  bool any = false;
  const auto look = [&](const std::vector<std::size_t>& columns) {
    for (const std::size_t column : columns) {
      if (!is_no_value(state.data[column])) continue;
      missing.note(column, response_missing);
      any = true;
    }
  };
  look(plan.design_columns);
  for (const CONDITIONAL_COLUMNS& under : plan.conditional) {
    const bool holds = std::all_of(under.conditions.begin(), under.conditions.end(), [&](std::int32_t condition) {
      const double value = read_source(plan.sources, condition, state);
      return value != 0.0 && !is_no_value(value);
    });
    if (holds) look(under.columns);
  }
  return any;
}

/// L_REPORT_DESIGN: the messages that follow the pass over the records.
void L_REPORT_DESIGN(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const MODEL_INFO& info, const MISSING_COUNTS& counts,
                     const DESIGN_ROW& row, std::int64_t observed)
{
  const Frame here{eh, __func__};
  REPORT_MISSING_VALUES(eh, options, info, counts);
  if (eh.terminate()) return;
  if (row.state.undefined > 0) {
    eh.warning(text("in ", row.state.undefined,
                    " instances the pow() terms have generated missing values which are treated as zero"));
  }
  if (row.unknown_keys > 0) {
    eh.warning(text("in ", row.unknown_keys, " instances the key was not found in the file of covariates, which are treated as zero"));
  }
  if (observed == 0) {
    eh.error("no records included in the design matrix");
  } else if (observed == 1) {
    eh.warning("only 1 record included in the design matrix");
  }
}

}  // namespace

void AIDSGN(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIABLE_TABLE& variables,
            const DATA_STORE& store, FACTOR_TABLE& factors, TERM_TABLE& terms, const MODEL_INFO& info,
            DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  if (variables.count() != store.width()) {
    eh.internal("design matrix Problem: send job to Kelmoor");
    return;
  }
  DESIGN_PLAN plan;
  L_PLAN_DESIGN(eh, variables, factors, terms, info, plan);
  if (eh.terminate()) return;
  const std::int64_t records = store.records();
  const auto traits = std::ssize(plan.responses);
  const bool has_mv = plan.mv != nullptr;
  DMT_SETUP(eh, design, records * traits, plan.elements + (has_mv ? 1 : 0));
  if (eh.terminate()) return;
  design.data_records = records;
  design.stacked = info.stacked;

  MISSING_COUNTS counts;
  counts.treatment = missing_treatment(options);
  MISSING_VALUES missing(store.width());
  DESIGN_ROW row;
  start_rows(plan, row);
  std::int64_t observed = 0;  // rows with a response and a weight above 0
  for (std::int64_t r = 0; r < records; ++r) {
    const std::span<const double> data = store.row(r);
    next_record(plan.sources, data, r + 1, row.state);
    const bool filled = r >= records - store.filled();  // a plot that mv estimates; nothing is known of it
    std::int64_t lost = 0;
    for (std::int64_t t = 0; t < traits; ++t) {
      row.state.trait = info.stacked > 0 ? r % info.stacked + 1 : t + 1;
      const double response = read_source(plan.sources, plan.responses[static_cast<std::size_t>(t)], row.state);
      const bool lacks = !filled && lacks_design_values(plan, is_no_value(response), row.state, missing);
      const RecordFate fate =
          filled ? RecordFate::estimated : fate_of_record(is_no_value(response), lacks, has_mv, counts);
      if (fate == RecordFate::dropped) {
        ++lost;
        continue;
      }
      L_FORM_ROW(eh, plan, records, row);
      if (eh.terminate()) return;
      const double weight = plan.weighted && !filled ? weight_of(data[plan.weight], design) : 1.0;
      if (plan.weighted) design.weight.push_back(weight);
      if (fate == RecordFate::estimated) {
        const std::int64_t equation = plan.mv->first + static_cast<std::int64_t>(design.mv.size());
        if (equation >= most_equations) {
          eh.error(text("the model has more than ", most_equations, " equations"));
          return;
        }
        row.equation.push_back(static_cast<std::int32_t>(equation));
        row.value.push_back(-1.0);
        design.mv.push_back(design.rows());
      } else if (weight > 0.0) {
        ++observed;
      }
      design.response.push_back(fate == RecordFate::estimated ? 0.0 : response);
      if (plan.has_offset) design.offset.push_back(is_no_value(data[plan.offset]) ? 0.0 : data[plan.offset]);
      design.record.push_back(r + 1);
      if (traits > 1) design.trait.push_back(static_cast<std::int32_t>(t) + 1);
      DMT_ADD_ROWS(eh, design, row.equation, row.value);
    }
    missing.close_record(counts);
    if (lost > 0 && lost < traits) counts.uneven = true;
  }
  DST_CHECK(eh, store);
  if (eh.terminate()) return;
  missing.name_variables(variables, counts);
  if (has_mv) L_CLOSE_MV(eh, factors, terms, design, *plan.mv);
  L_REPORT_DESIGN(eh, options, info, counts, row, observed);
  if (eh.terminate()) return;
  if (plan.trait_slow) L_SORT_BY_TRAIT(eh, traits, has_mv ? plan.mv->first : -1, design);
  if (eh.terminate()) return;
  DMT_RESIZE_TO(eh, design);
}

}  // namespace tolvan
