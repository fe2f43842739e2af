// Forming the design.  Routines: AIDSGN, CHECK_AND_CONFORMITY.
#include <algorithm>
#include <cmath>
#include <limits>

#include "base/text.h"
#include "data/design_matrix.h"
#include "data/design_missing.h"
#include "data/design_plan.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_equations = std::numeric_limits<std::int32_t>::max();

/// One record on its way into the design.
struct DesignRow {
  std::vector<std::int32_t> equation;
  std::vector<double> value;
};

/// L_LEVEL_ABOVE: the complaint about a level beyond the declared ones.
void L_LEVEL_ABOVE(ERROR_HANDLER& eh, const DESIGN_TERM& term, const DESIGN_COMPONENT& component,
                   double level, std::int64_t record, std::int64_t records)
{
  const Frame here{eh, __func__};
  eh.error(text("misspecification of model term ", term.name,
                ", actual number of levels exceeds the number declared [", component.levels,
                "], after processing ", record, " of ", records, " records"));
  eh.continuation(
      text("level ", static_cast<std::int64_t>(level), " of ", component.name, " in data record ", record));
}

/// L_FORM_ROW: the equations of one record with their values.
///
/// A term of components with level counts n1, n2, ..., the first the slowest, puts a record with levels l1,
/// l2, ... at equation  first + (..((l1 - 1) n2 + l2 - 1) n3 + l3 - 1..)  with the product of its covariates
/// as value. A missing level gives no equation; a missing covariate counts as 0, and elements of value 0 are
/// left out.
void L_FORM_ROW(ERROR_HANDLER& eh, const DESIGN_PLAN& plan, std::span<const double> data, std::int64_t record,
                std::int64_t records, DesignRow& row)
{
  const Frame here{eh, __func__};
  row.equation.clear();
  row.value.clear();
  for (const DESIGN_TERM& term : plan.terms) {
    std::int64_t position = 0;
    double value = 1.0;
    for (const DESIGN_COMPONENT& component : term.components) {
      switch (component.reads) {
        case DESIGN_COMPONENT::Reads::one:
          break;
        case DESIGN_COMPONENT::Reads::value: {
          const double x = data[component.column];
          value = is_no_value(x) ? 0.0 : value * x;
          break;
        }
        case DESIGN_COMPONENT::Reads::level:
        case DESIGN_COMPONENT::Reads::record_number: {
          const bool numbered = component.reads == DESIGN_COMPONENT::Reads::record_number;
          const double level = numbered ? static_cast<double>(record) : data[component.column];
          if (is_no_value(level)) {
            value = 0.0;
            break;
          }
          if (level > static_cast<double>(component.levels)) {
            L_LEVEL_ABOVE(eh, term, component, level, record, records);
            return;
          }
          position = position * component.levels + static_cast<std::int64_t>(level) - 1;
          break;
        }
      }
    }
    if (value == 0.0) continue;
    if (!std::isfinite(value)) {
      eh.error(text("the value of model term ", term.name, " is too large in data record ", record));
      return;
    }
    row.equation.push_back(static_cast<std::int32_t>(term.first + position));
    row.value.push_back(value);
  }
}

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
  L_PLAN_DESIGN(eh, factors, terms, info, plan);
  if (eh.terminate()) return;
  const std::int64_t records = store.records();
  const bool has_mv = plan.mv != nullptr;
  DMT_SETUP(eh, design, records, static_cast<std::int64_t>(plan.terms.size()) + (has_mv ? 1 : 0));
  if (eh.terminate()) return;
  design.data_records = records;

  MISSING_COUNTS counts;
  counts.treatment = missing_treatment(options);
  DesignRow row;
  std::int64_t observed = 0;  // rows with a response and a weight above 0
  for (std::int64_t r = 0; r < records; ++r) {
    const std::span<const double> data = store.row(r);
    std::int64_t missing = 0;
    for (const std::size_t column : plan.design_columns) missing += is_no_value(data[column]) ? 1 : 0;
    const RecordFate fate = fate_of_record(is_no_value(data[plan.response]), missing, has_mv, counts);
    if (fate == RecordFate::dropped) continue;

    L_FORM_ROW(eh, plan, data, r + 1, records, row);
    if (eh.terminate()) return;
    const double weight = plan.weighted ? weight_of(data[plan.weight], design) : 1.0;
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
    design.response.push_back(fate == RecordFate::estimated ? 0.0 : data[plan.response]);
    design.record.push_back(r + 1);
    DMT_ADD_ROWS(eh, design, row.equation, row.value);
  }
  if (has_mv) L_CLOSE_MV(eh, factors, terms, design, *plan.mv);
  REPORT_MISSING_VALUES(eh, options, info, counts);
  if (eh.terminate()) return;
  if (observed == 0) {
    eh.error("no records included in the design matrix");
    return;
  }
  if (observed == 1) eh.warning("only 1 record included in the design matrix");
  DMT_RESIZE_TO(eh, design);
}

void CHECK_AND_CONFORMITY(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t kind_and = 13;
  for (const TERM_ROW& term : terms.rows) {
    const auto [from, to] = term.components();
    for (std::int64_t row = from; row <= to && row >= 1 && row <= factors.count(); ++row) {
      if (factors.row(row).kind != kind_and) continue;
      eh.not_implemented(text("and() in model term ", term.name, " is not implemented"));
      return;
    }
  }
}

}  // namespace tolvan
