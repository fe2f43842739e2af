// The request's list of initial values, and the names of parameters.  Routines: GET_INITIAL_VALUES_FROM_JSON,
// REFUSE_PROFILED_RESIDUAL.
#include <cmath>
#include <optional>

#include "base/numbers.h"
#include "base/text.h"
#include "model/request.h"
#include "varstruct/constraints.h"
#include "varstruct/initial_values.h"
#include "varstruct/labels.h"

namespace tolvan {

namespace {

constexpr std::string_view list_key = "initial_values";

/// What the list says about one parameter.
struct Given {
  std::optional<double> value;
  std::optional<Constraint> constraint;
};

/// L_READ_ENTRY: reads one entry of the list and sets the parameter that it names.
void L_READ_ENTRY(ERROR_HANDLER& eh, const JsonNode& entry, const FACTOR_TABLE& factors,
                  const TERM_TABLE& terms, VARIANCE_MODEL& model, std::vector<Given>& given)
{
  const Frame here{eh, __func__};
  if (!entry.is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, entry, {"an object with the keys term, value and constraint"});
    return;
  }
  const JsonNode* name = entry.find("term");
  if (name == nullptr) {
    REPORT_JSON_ERROR(eh, entry, "term");
    return;
  }
  if (!name->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *name, {"the name of a term"});
    return;
  }
  const std::string& term = name->text();
  const std::int64_t parameter = find_parameter(factors, terms, model, term);
  if (parameter < 0) {
    eh.error(text("an initial value was supplied for the term ", term, ", but it is not in the model"));
    return;
  }
  Given& known = given[static_cast<std::size_t>(parameter)];

  const JsonNode* value = entry.find("value");
  if (value != nullptr && !value->is(JsonType::null) && !value->is_text(no_value_supplied)) {
    if (!value->is_number() || !std::isfinite(value->number())) {
      REPORT_JSON_ERROR(eh, *value, {"a number"});
      return;
    }
    const double x = value->number();
    if (known.value) {
      eh.error(text("at least two initial values have been supplied for ", term, ": ",
                    edit_e(*known.value, 12, 4), " and ", edit_e(x, 12, 4)));
      return;
    }
    known.value = x;
    if (!set_value(model, parameter, x)) {
      REFUSE_PROFILED_RESIDUAL(eh, term);
      return;
    }
  }

  const JsonNode* letter = entry.find("constraint");
  if (letter == nullptr || letter->is(JsonType::null) || letter->is_text(no_value_supplied)) return;
  if (letter->text().size() == 1 && !constraint_of(letter->text().front())) {
    eh.error(text("unexpected constraint code (", letter->text(), ") supplied for term ", term));
    return;
  }
  Constraint code = Constraint::P;
  GET_GMCSTR(eh, letter, code);
  if (eh.terminate()) return;
  if (known.constraint) {
    eh.error(text("at least two constraints have been supplied for ", term, ": ",
                  constraint_letter(*known.constraint), " and ", constraint_letter(code)));
    return;
  }
  known.constraint = code;
  if (!set_constraint(model, parameter, code)) REFUSE_PROFILED_RESIDUAL(eh, term);
}

}  // namespace

std::int64_t find_parameter(const FACTOR_TABLE& factors, const TERM_TABLE& terms, VARIANCE_MODEL& model,
                            std::string_view name)
{
  const auto labelled = [&](std::string_view label) -> std::int64_t {
    for (std::size_t k = 0; k < model.parameters.size(); ++k) {
      if (model.parameters[k].label == label) return static_cast<std::int64_t>(k);
    }
    return -1;
  };
  if (const std::int64_t found = labelled(name); found >= 0) return found;
  // The residual of several traits in short: "units.us;US_V_1_1", "units.us_V_1_1".
  const std::string whole = units_label(factors) + ".us";
  if (name.starts_with(whole + ";") || name.starts_with(whole + "_")) {
    const std::string_view rest = name.substr(whole.size() + 1);
    for (const RESIDUAL_SECTION& section : model.sections) {
      if (!section.label.starts_with(whole + "(")) continue;
      const std::string label = text(section.label, name[whole.size()] == ';' ? ";" : ";US_", rest);
      if (const std::int64_t found = labelled(label); found >= 0) return found;
    }
  }
  const PARAMETER_RANGE range = find_structure(factors, terms, model, name);
  return range.rows != nullptr && range.count == 1 ? range.first : -1;
}

bool set_value(VARIANCE_MODEL& model, std::int64_t parameter, double value)
{
  if (is_no_value(value)) return true;
  if (model.profiled && parameter == model.residual_parameter) return value == 1.0;
  VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(parameter)];
  p.value = p.start = value;
  return true;
}

bool set_constraint(VARIANCE_MODEL& model, std::int64_t parameter, Constraint constraint)
{
  if (model.profiled && parameter == model.residual_parameter) return constraint == Constraint::P;
  model.parameters[static_cast<std::size_t>(parameter)].constraint = constraint;
  return true;
}

void REFUSE_PROFILED_RESIDUAL(ERROR_HANDLER& eh, std::string_view term)
{
  const Frame here{eh, __func__};
  eh.error(
      text("If you are attempting to fit a residual using ", term, ", try using the sigma parameterization"));
  eh.continuation("by setting varscale to 1.0");
}

void GET_INITIAL_VALUES_FROM_JSON(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                                  const TERM_TABLE& terms, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  // The list stands at the top level, or inside the model.
  const JsonNode* list = request.find(list_key);
  if (const JsonNode* m = request.find("model"); list == nullptr && m != nullptr) {
    if (m->is(JsonType::array) && !m->children().empty()) m = m->children().front().get();
    list = m->find(list_key);
  }
  if (list == nullptr || list->is(JsonType::null) || list->is_text(no_value_supplied)) return;

  std::vector<Given> given(model.parameters.size());
  if (list->is(JsonType::object)) {
    L_READ_ENTRY(eh, *list, factors, terms, model, given);
    return;
  }
  if (!list->is(JsonType::array) || list->packed()) {
    REPORT_JSON_ERROR(eh, *list, {"a list of objects with the keys term, value and constraint"});
    return;
  }
  for (const auto& entry : list->children()) {
    L_READ_ENTRY(eh, *entry, factors, terms, model, given);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
