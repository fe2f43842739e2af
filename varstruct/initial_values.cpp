// The user's values and constraints over the parameter table.  Routines: FORCE_GAMMA_INITIAL_VALUES,
// SAVE_INITIAL_VALUES.
#include "varstruct/followers.h"
#include "varstruct/initial_values.h"

#include <algorithm>
#include <cmath>

#include "base/numbers.h"
#include "base/text.h"
#include "model/request.h"
#include "varstruct/constraints.h"
#include "varstruct/labels.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

constexpr double largest_ratio = 1e12;  // of a variance to the residual's

/// A qualifier on the term node or inside its `initial_values` object; null when neither has it.
const JsonNode* qualifier(const JsonNode& term, std::string_view key)
{
  const JsonNode* node = term.find(key);
  if (node == nullptr) {
    const JsonNode* inside = term.find("initial_values");
    if (inside != nullptr && inside->is(JsonType::object)) node = inside->find(key);
  }
  if (node == nullptr || node->is(JsonType::null) || node->is_text(no_value_supplied)) return nullptr;
  return node;
}

/// L_READ_NUMBERS: reads a number or a list of numbers.
void L_READ_NUMBERS(ERROR_HANDLER& eh, const JsonNode* node, std::vector<double>& numbers)
{
  const Frame here{eh, __func__};
  if (node == nullptr) return;
  if (node->is_number()) {
    numbers.push_back(node->number());
  } else if (node->is(JsonType::array) && (node->packed() || node->size() == 0)) {
    for (std::int64_t k = 0; k < node->number_count(); ++k) numbers.push_back(node->number(k));
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a list of numbers"});
    return;
  }
  if (!std::all_of(numbers.begin(), numbers.end(), [](double x) { return std::isfinite(x); })) {
    REPORT_JSON_ERROR(eh, *node, {"a list of finite numbers"});
  }
}

/// L_READ_TEXT: reads a string.
void L_READ_TEXT(ERROR_HANDLER& eh, const JsonNode* node, std::string& out)
{
  const Frame here{eh, __func__};
  if (node == nullptr) return;
  if (node->is(JsonType::string)) {
    out = node->text();
  } else if (node->is(JsonType::integer)) {  // "eq_constraints": 112
    out = text(node->integer());
  } else {
    REPORT_JSON_ERROR(eh, *node, {"a string"});
  }
}

/// L_EQUATE: makes the parameters of each group follow the first of it.
void L_EQUATE(ERROR_HANDLER& eh, const std::string& letters, const std::string& term,
              const PARAMETER_RANGE& range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::vector<std::int64_t> groups;
  if (!read_equality_groups(letters, groups)) {
    eh.error(text(letters, " is not a valid string for supplying equality constraints for ", term));
    return;
  }
  if (static_cast<std::int64_t>(groups.size()) != range.count) {
    eh.error(
        text("incorrect number of values supplied in  the equality constraints for ", term));  // two blanks
    return;
  }
  for (std::size_t k = 0; k < groups.size(); ++k) {
    const auto first =
        static_cast<std::size_t>(std::find(groups.begin(), groups.end(), groups[k]) - groups.begin());
    if (first == k) continue;
    if (model.profiled && range.first + static_cast<std::int64_t>(k) == model.residual_parameter) {
      REFUSE_PROFILED_RESIDUAL(eh, term);
      return;
    }
    link_parameter(model, range.first + static_cast<std::int64_t>(k),
                   range.first + static_cast<std::int64_t>(first), 1.0);
  }
}

/// L_SET_PARAMETERS: lays one term's values and constraints over its stretch of the vector.
void L_SET_PARAMETERS(ERROR_HANDLER& eh, const IVALUE_DATA& data, const std::string& term,
                      PARAMETER_RANGE range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  // The profiled variance behind a product is none of the user's, unless values are given for it, too.
  const bool behind = range.scale >= 0 && model.profiled && range.count > 1;
  if (behind && static_cast<std::int64_t>(data.values.size()) != range.count) --range.count;
  if (!data.values.empty() && static_cast<std::int64_t>(data.values.size()) != range.count) {
    eh.error(text("unexpected number of initial values supplied for ", term,
                  ", number expected = ", range.count, ", number supplied = ", data.values.size()));
    return;
  }
  bool refused = false;
  for (std::size_t k = 0; k < data.values.size(); ++k) {
    refused = !set_value(model, range.first + static_cast<std::int64_t>(k), data.values[k]) || refused;
  }

  if (!data.ps_constraints.empty()) {
    std::vector<Constraint> codes;
    switch (read_constraints(data.ps_constraints, range.count, codes)) {
      case ConstraintString::illegal:
        eh.error(text(data.ps_constraints,
                      " is not a valid string for supplying parameter space constraints for ", term));
        return;
      case ConstraintString::wrong_count:
        eh.error(text("incorrect number of values supplied in  the parameter space constraints for ", term));
        return;
      case ConstraintString::good:
        break;
    }
    for (std::size_t k = 0; k < codes.size(); ++k) {
      refused = !set_constraint(model, range.first + static_cast<std::int64_t>(k), codes[k]) || refused;
    }
  }
  if (refused) {
    REFUSE_PROFILED_RESIDUAL(eh, term);
    return;
  }
  if (!data.eq_constraints.empty()) L_EQUATE(eh, data.eq_constraints, term, range, model);
}

/// The largest variance that the residual starts with.
double largest_residual_variance(const VARIANCE_MODEL& model)
{
  double largest = 0.0;
  const auto take = [&](std::int64_t from, std::int64_t count) {
    for (std::int64_t i = from; i < from + count; ++i) {
      const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(i)];
      if (p.role == ParamRole::variance) largest = std::max(largest, std::fabs(p.value));
      if (p.role == ParamRole::precision && p.value != 0.0) largest = std::max(largest, std::fabs(1.0 / p.value));
    }
  };
  for (const STRUCTURE_ROW& row : model.residual) take(row.first, row.parameters);
  for (const RESIDUAL_SECTION& section : model.sections) {
    if (section.scale >= 0) take(section.scale, 1);
  }
  return largest > 0.0 ? largest : 1.0;
}

/// What a parameter of this role is counted in where variances are counted in `variance`.
double unit_of(ParamRole role, double variance)
{
  switch (role) {
    case ParamRole::variance:
    case ParamRole::covariance: return variance;
    case ParamRole::loading: return std::sqrt(variance);
    case ParamRole::precision: return 1.0 / variance;
    case ParamRole::correlation:
    case ParamRole::other: break;
  }
  return 1.0;
}

/// L_CHECK_VALUES: complains of starting values that no iteration can begin with.
void L_CHECK_VALUES(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, double unit)
{
  const Frame here{eh, __func__};
  for (const VARIANCE_PARAMETER& p : model.parameters) {
    const std::string given = text("the initial value ", p.value, " of ", p.label);
    const bool positive =
        p.constraint == Constraint::P || p.constraint == Constraint::Z || p.constraint == Constraint::none;
    if (!std::isfinite(p.value)) {
      eh.error(text(given, " is not a finite number"));
    } else if (std::fabs(p.value) > largest_ratio * unit_of(p.role, unit)) {
      eh.error(text(given, " is too large: against it the residual variance would be lost in rounding"));
    } else if ((p.role == ParamRole::variance || p.role == ParamRole::precision) && positive &&
               p.value < 0.0) {
      eh.error(text(given, " is below zero: give a value above zero, or the constraint U"));
    }
    if (eh.terminate()) return;
  }
}

/// The row of one component in the structure of its term; without rows when it has none.
PARAMETER_RANGE range_of_part(const PARAMETER_RANGE& whole, std::int64_t factor)
{
  for (std::int64_t r = whole.first_row; whole.rows != nullptr && factor > 0 && r < whole.first_row + whole.row_count; ++r) {
    const STRUCTURE_ROW& row = (*whole.rows)[static_cast<std::size_t>(r)];
    if (row.factor != factor) continue;
    return {.rows = whole.rows, .first_row = r, .row_count = 1, .first = row.first, .count = row.parameters, .section = whole.section};
  }
  return {};
}

/// The one term of the request's residual, which has no row in the term table; null without one.
const JsonNode* residual_term(const JsonNode& request)
{
  const JsonNode* node = request.find("model");
  if (node != nullptr && node->is(JsonType::array))
    node = node->children().empty() ? nullptr : node->children()[0].get();
  if (node != nullptr) node = node->find("residual");
  if (node != nullptr && node->find("terms") != nullptr) node = node->find("terms");
  if (node != nullptr && node->is(JsonType::array)) {
    node = node->children().size() == 1 ? node->children()[0].get() : nullptr;
  }
  return node != nullptr && node->is(JsonType::object) ? node : nullptr;
}

}  // namespace

void SAVE_INITIAL_VALUES(ERROR_HANDLER& eh, const JsonNode& term, IVALUE_DATA& data)
{
  const Frame here{eh, __func__};
  data = {};
  if (!term.is(JsonType::object)) return;
  const JsonNode* inside = term.find("initial_values");
  if (inside != nullptr && !inside->is(JsonType::object) && !inside->is(JsonType::null)) {
    REPORT_JSON_ERROR(eh, *inside, {"an object"});
    return;
  }
  L_READ_NUMBERS(eh, qualifier(term, "values"), data.values);
  if (eh.terminate()) return;
  L_READ_NUMBERS(eh, qualifier(term, "coord"), data.coord);
  if (eh.terminate()) return;
  L_READ_TEXT(eh, qualifier(term, "use"), data.use);
  if (eh.terminate()) return;
  L_READ_TEXT(eh, qualifier(term, "ps_constraints"), data.ps_constraints);
  if (eh.terminate()) return;
  L_READ_TEXT(eh, qualifier(term, "eq_constraints"), data.eq_constraints);
  if (eh.terminate()) return;
  L_READ_TEXT(eh, qualifier(term, "subsection"), data.subsection);
  if (eh.terminate()) return;
  if (const JsonNode* sing = qualifier(term, "sing")) {
    if (sing->is(JsonType::integer)) {
      data.sing = sing->integer();
    } else {
      REPORT_JSON_ERROR(eh, *sing, {"an integer"});
    }
  }
}

void FORCE_GAMMA_INITIAL_VALUES(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                                const TERM_TABLE& terms, const DATA_STORE& store, const DESIGN_MTX& design,
                                VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  // Absolute values are as large as the response makes them; ratios have no unit.
  const double unit = model.gamma ? 1.0 : largest_residual_variance(model);
  GET_INITIAL_VALUES_FROM_JSON(eh, request, factors, terms, model);
  if (eh.terminate()) return;

  const QUALIFIER_DATA places{factors, terms, store, design};
  const auto apply_data = [&](const IVALUE_DATA& data, const std::string& name, const PARAMETER_RANGE& range) {
    if (range.rows == nullptr) {
      eh.error(text("no structure vector set up for ", name, ", cannot apply variance structure qualifiers"));
      return;
    }
    L_SET_PARAMETERS(eh, data, name, range, model);
    if (!eh.terminate()) APPLY_QUALIFIERS(eh, places, data, name, range, model);
  };
  const auto apply = [&](const JsonNode& node, const std::string& name, const PARAMETER_RANGE& range) {
    IVALUE_DATA data;
    SAVE_INITIAL_VALUES(eh, node, data);
    if (!eh.terminate() && !data.empty()) apply_data(data, name, range);
  };
  const auto apply_parts = [&](const TERM_ROW& term, const PARAMETER_RANGE& range) {
    std::vector<TERM_PART> parts;
    TERM_PARTS(eh, term, parts);
    for (const TERM_PART& part : parts) {
      if (eh.terminate()) return;
      const PARAMETER_RANGE own = range_of_part(range, part.factor);
      const std::string name = part.factor > 0 ? factors.row(part.factor).shown() : term.name;
      if (own.row_count == 0) {
        eh.error(text("cant find ID for partial term (", name, ") - something went wrong when saving initial values"));
        return;
      }
      apply_data(part.data, name, own);
    }
  };
  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    const auto index = static_cast<std::int64_t>(i);
    if (term.initial_values == nullptr || term.block == Block::residual) continue;
    if (term.linked_head >= 0 && term.linked_head != index) continue;  // said with the first of the group
    if (term.dropped) {
      IVALUE_DATA data;
      SAVE_INITIAL_VALUES(eh, *term.initial_values, data);
      if (eh.terminate()) return;
      if (data.empty()) continue;
      eh.error(text("attempting to set initial values for ", term.name, " which is not in the model"));
      return;
    }
    const auto structure = std::find_if(model.terms.begin(), model.terms.end(),
                                        [index](const TERM_STRUCTURE& s) { return s.term == index; });
    const PARAMETER_RANGE range = structure == model.terms.end() ? PARAMETER_RANGE{} : parameters_of(model, *structure);
    apply(*term.initial_values, term.name, range);
    if (eh.terminate()) return;
    apply_parts(term, range);
    if (eh.terminate()) return;
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    // Records without a residual term of their own have the one term of the request.
    const JsonNode* node = section.term >= 0
                               ? terms.rows[static_cast<std::size_t>(section.term)].initial_values
                               : residual_term(request);
    if (node == nullptr) continue;
    const PARAMETER_RANGE range = parameters_of(model, section);
    apply(*node, section.name.empty() ? units_label(factors) : section.name, range);
    if (eh.terminate()) return;
    if (section.term >= 0) apply_parts(terms.rows[static_cast<std::size_t>(section.term)], range);
    if (eh.terminate()) return;
  }
  set_followers(model);
  L_CHECK_VALUES(eh, model, unit);
}

}  // namespace tolvan
