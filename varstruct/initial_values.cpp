// The user's values and constraints over the parameter table.  Routines: FORCE_GAMMA_INITIAL_VALUES,
// SAVE_INITIAL_VALUES.
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

bool in_model(const FACTOR_TABLE& factors, const TERM_TABLE& terms, std::string_view name)
{
  if (name == units_label(factors)) return true;
  return std::any_of(terms.rows.begin(), terms.rows.end(), [&](const TERM_ROW& t) {
    return t.block != Block::response && (t.name == name || term_label(factors, t) == name);
  });
}

/// L_REFUSE_QUALIFIERS: complains of qualifiers that no structure built so far can take.
void L_REFUSE_QUALIFIERS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                         const IVALUE_DATA& data, const std::string& term)
{
  const Frame here{eh, __func__};
  if (!data.use.empty()) {
    if (in_model(factors, terms, data.use)) {
      eh.not_implemented(text("use (", data.use, ") of ", term, " is not implemented"));
    } else {
      eh.error(text("the term ", data.use, " used when setting error structure for ", term,
                    " doe not exist in the model"));  // sic
    }
  } else if (!data.coord.empty()) {
    eh.error(text("No cordinates required for ", term));  // sic
  } else if (data.sing % 2 != 0) {
    eh.error(text("invalid number of levels for SING option, was expecting an even number, observed = ",
                  data.sing));
  } else if (data.sing != 0) {
    eh.not_implemented(text("sing of ", term, " is not implemented"));
  } else if (!data.subsection.empty()) {
    if (in_model(factors, terms, data.subsection)) {
      eh.not_implemented(text("subsection (", data.subsection, ") of ", term, " is not implemented"));
    } else {
      eh.error(text("the term ", data.subsection, " used when subsection for ", term,
                    " doe not exist in the model"));  // sic
    }
  }
}

/// L_SET_PARAMETERS: lays one term's values and constraints over its stretch of the vector.
void L_SET_PARAMETERS(ERROR_HANDLER& eh, const IVALUE_DATA& data, const std::string& term,
                      PARAMETER_RANGE range, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  if (!data.values.empty() && static_cast<std::int64_t>(data.values.size()) != range.count) {
    eh.error(text("unexpected number of initial values supplied for ", term,
                  ", number expected = ", range.count, ", number supplied = ", data.values.size()));
    return;
  }
  bool refused = false;
  for (std::size_t k = 0; k < data.values.size(); ++k) {
    refused = !set_value(model, range.first + static_cast<std::int64_t>(k), data.values[k]) || refused;
  }

  if (!data.eq_constraints.empty()) {
    std::vector<std::int64_t> groups;
    if (!read_equality_groups(data.eq_constraints, groups)) {
      eh.error(
          text(data.eq_constraints, " is not a valid string for supplying equality constraints for ", term));
      return;
    }
    if (static_cast<std::int64_t>(groups.size()) != range.count) {
      eh.error(
          text("incorrect number of values supplied in  the equality constraints for ", term));  // two blanks
      return;
    }
    std::sort(groups.begin(), groups.end());
    if (std::adjacent_find(groups.begin(), groups.end()) != groups.end()) {
      eh.not_implemented(text("eq_constraints (", data.eq_constraints, ") that equate parameters of ", term,
                              " are not implemented"));
      return;
    }
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
  if (refused) REFUSE_PROFILED_RESIDUAL(eh, term);
}

/// L_CHECK_VALUES: complains of starting values that no iteration can begin with.
void L_CHECK_VALUES(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, double unit)
{
  const Frame here{eh, __func__};
  for (const VARIANCE_PARAMETER& p : model.parameters) {
    const std::string given = text("the initial value ", p.value, " of ", p.label);
    const bool positive = p.constraint == Constraint::P || p.constraint == Constraint::Z || p.constraint == Constraint::none;
    if (!std::isfinite(p.value)) {
      eh.error(text(given, " is not a finite number"));
    } else if (std::fabs(p.value) > largest_ratio * unit) {
      eh.error(text(given, " is too large: against it the residual variance would be lost in rounding"));
    } else if (p.role == ParamRole::variance && positive && p.value < 0.0) {
      eh.error(text(given, " is below zero: give a value above zero, or the constraint U"));
    }
    if (eh.terminate()) return;
  }
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
                                const TERM_TABLE& terms, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  // Absolute values are as large as the response makes them; ratios have no unit.
  const double unit = model.gamma || model.residual_parameter < 0
                          ? 1.0
                          : std::fabs(model.parameters[static_cast<std::size_t>(model.residual_parameter)].value);
  GET_INITIAL_VALUES_FROM_JSON(eh, request, factors, terms, model);
  if (eh.terminate()) return;

  IVALUE_DATA data;
  for (std::size_t i = 0; i < terms.rows.size(); ++i) {
    const TERM_ROW& term = terms.rows[i];
    if (term.initial_values == nullptr) continue;
    SAVE_INITIAL_VALUES(eh, *term.initial_values, data);
    if (eh.terminate()) return;
    if (data.empty()) continue;
    if (term.dropped) {
      eh.error(text("attempting to set initial values for ", term.name, " which is not in the model"));
      return;
    }
    const auto structure = std::find_if(model.terms.begin(), model.terms.end(), [i](const TERM_STRUCTURE& s) {
      return s.term == static_cast<std::int64_t>(i);
    });
    if (structure == model.terms.end()) {
      eh.error(
          text("no structure vector set up for ", term.name, ", cannot apply variance structure qualifiers"));
      return;
    }
    L_REFUSE_QUALIFIERS(eh, factors, terms, data, term.name);
    if (eh.terminate()) return;
    L_SET_PARAMETERS(eh, data, term.name, parameters_of(model, *structure), model);
    if (eh.terminate()) return;
  }

  const JsonNode* residual = residual_term(request);
  if (residual != nullptr && model.residual_parameter >= 0) {
    SAVE_INITIAL_VALUES(eh, *residual, data);
    if (eh.terminate()) return;
    if (!data.empty()) {
      L_REFUSE_QUALIFIERS(eh, factors, terms, data, units_label(factors));
      if (eh.terminate()) return;
      L_SET_PARAMETERS(eh, data, units_label(factors), {model.residual_parameter, 1}, model);
      if (eh.terminate()) return;
    }
  }
  L_CHECK_VALUES(eh, model, unit);
}

}  // namespace tolvan
