// The model of a request: API_EXPAND_MODEL and the forms in which a caller may write its parts.
#include "model/expand_model.h"

#include <algorithm>

#include "base/text.h"
#include "model/formula_nodes.h"
#include "model/formula_text.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::string_view term_parts[] = {"fixed", "random", "sparse", "residual"};
constexpr std::string_view other_keys[] = {"response", "family",         "weights",   "initial_values",
                                           "vcm",      "vcc_constraint", "variables", "offset",
                                           "name",     "title",          "comments"};

bool is_term_form(const JsonNode& node)
{
  return node.is(JsonType::object) &&
         (node.find("term_name") != nullptr || node.find("interaction") != nullptr ||
          node.find("function") != nullptr || node.find("linked") != nullptr);
}

/// A name as it may stand in the list: nothing in it that the formula layer would have to read.
bool is_plain_text(const COMMUNICATION& communication, std::string_view s)
{
  return !is_numeric(s) && is_plain_text(SYMBOLS(communication), s);
}

/// L_READ_TERM_LIST: brings a list that a caller wrote as JSON into the term forms.
void L_READ_TERM_LIST(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& list,
                      std::string_view part)
{
  const Frame here{eh, __func__};
  list.unpack();
  const auto is_formula = [&](const JsonNode& node) {
    return node.is(JsonType::integer) ||
           (node.is(JsonType::string) && !is_plain_text(communication, node.text()));
  };
  bool formulas = false;
  for (const auto& element : list.children()) {
    if (is_formula(*element)) {
      formulas = true;
    } else if (element->size() == 1 && is_plain_text(communication, plain_name(*element)) && !plain_name(*element).empty()) {
      element->set(std::string(plain_name(*element)));
    } else if (!element->is(JsonType::string) && !is_term_form(*element)) {
      REPORT_JSON_ERROR(eh, *element, {"the name of a term", "an interaction", "a function"});
      return;
    }
  }
  if (!formulas) return;
  auto parent = std::make_unique<JsonNode>(JsonType::object);  // the formula layer appends to its "terms"
  JsonNode& terms = parent->add("terms", JsonType::array);
  for (const auto& element : list.children()) {
    if (is_formula(*element)) {
      const std::string formula = element->is(JsonType::integer) ? text(element->integer()) : element->text();
      API_FORMULA_STRING_TO_JPTR(eh, communication, parent.get(), formula, part);
      if (eh.terminate()) return;
    } else {
      terms.add(element->clone());
    }
  }
  list.replace_with(parent->detach(&terms));
}

/// L_ADD_INTERCEPT: puts the intercept before the first term, unless it is there or is dropped.
void L_ADD_INTERCEPT(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& list)
{
  const Frame here{eh, __func__};
  const std::string& mu = communication.VARIABLE_NAME_MU;
  for (const auto& term : list.children())
    if (plain_name(*term) == mu) return;
  auto intercept = std::make_unique<JsonNode>();
  intercept->set(mu);
  list.insert(0, std::move(intercept));
}

/// L_EXPAND_RESPONSE: one response expression; a single term stands in the place of the list.
void L_EXPAND_RESPONSE(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& node)
{
  const Frame here{eh, __func__};
  API_EXPAND_MODEL_PART(eh, communication, node, "response");
  if (eh.terminate()) return;
  JsonNode& terms = *node.find("terms");
  API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, terms, {.part = "response"});
  if (eh.terminate()) return;
  for (const auto& term : terms.children()) {
    if (!has_flag(*term, "drop")) continue;
    eh.error(text("the response variable, ", GET_FACNAME_FROM_JPTR(eh, communication, *term), ", can not be dropped"));
    return;
  }
  if (terms.size() == 1) terms.replace_with(terms.detach(terms.children().front().get()));
}

}  // namespace

void API_EXPAND_MODEL_PART(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& node,
                           std::string_view part)
{
  const Frame here{eh, __func__};
  // A list of terms is the whole part, as in a standard form that comes back: it may do without the intercept.
  bool whole = false;
  if (node.is(JsonType::string)) {
    API_EXPAND_FORMULA_STRING(eh, communication, node, part);
    if (eh.terminate()) return;
  } else {
    const bool bare_list = node.is(JsonType::array);
    if (!bare_list && !is_term_form(node) && !node.is(JsonType::object)) {
      REPORT_JSON_ERROR(eh, node, {"a formula", "an object with terms"});
      return;
    }
    if (bare_list || is_term_form(node)) {  // a list of terms, or a single one, without its frame
      std::unique_ptr<JsonNode> inner = node.clone();
      inner->name = "terms";
      node.set_object();
      node.add(std::move(inner));
    }
    JsonNode* terms = node.find("terms");
    if (terms == nullptr) {
      REPORT_JSON_ERROR(eh, node, "terms");
      return;
    }
    whole = !bare_list && terms->is(JsonType::array);
    if (!terms->is(JsonType::array)) {
      std::unique_ptr<JsonNode> only = terms->clone();
      only->name.clear();
      terms->set_array();
      terms->add(std::move(only));
    }
    L_READ_TERM_LIST(eh, communication, *terms, part);
    if (eh.terminate()) return;
  }
  JsonNode& terms = *node.find("terms");
  if (part == "fixed" && !whole) L_ADD_INTERCEPT(eh, communication, terms);
  if (terms.size() > 0) return;
  eh.internal("not expecting to get here with no terms");
  eh.continuation(text(json_path(node), " names none"));
}

void API_EXPAND_MODEL_PARTS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                            JsonNode& node, std::string_view part)
{
  const Frame here{eh, __func__};
  JsonNode& terms = *node.find("terms");
  API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, terms, {.part = part});
  if (eh.terminate()) return;
  API_ADJUST_TERMS(eh, communication, root, terms, part);
  if (eh.terminate()) return;
  API_DROP_DUPLICATE_TERMS(eh, communication, terms, part);
}

namespace {

/// L_EXPAND_ONE_MODEL: brings the parts of one model into the standard form.
void L_EXPAND_ONE_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& model)
{
  const Frame here{eh, __func__};
  if (!model.is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, model, {"an object"});
    return;
  }
  for (std::string_view part : term_parts) {
    REPORT_IF_JSON_KEY_DUPLICATED(eh, model, part);
    if (JsonNode* node = model.find(part); node != nullptr && node->is(JsonType::null)) model.detach(node);
  }
  for (std::string_view key : other_keys) REPORT_IF_JSON_KEY_DUPLICATED(eh, model, key);
  if (eh.terminate()) return;
  JsonNode* response = model.find("response");
  if (response == nullptr || response->is(JsonType::null)) {
    REPORT_JSON_ERROR(eh, model, "response");
    return;
  }
  if (model.find("fixed") == nullptr) model.add_value("fixed", communication.VARIABLE_NAME_MU);

  for (const auto& child : model.children()) {
    const std::string& key = child->name;
    if (std::find(std::begin(term_parts), std::end(term_parts), key) != std::end(term_parts)) {
      API_EXPAND_MODEL_PART(eh, communication, *child, key);
      if (eh.terminate()) return;
    } else if (key == "response") {
      if (!child->is(JsonType::array)) {
        L_EXPAND_RESPONSE(eh, communication, root, *child);
      } else {
        child->unpack();
        if (child->size() == 0) REPORT_JSON_ERROR(eh, *child, {"a formula", "an array of formulas"});
        for (const auto& expression : child->children()) {
          if (eh.terminate()) return;
          L_EXPAND_RESPONSE(eh, communication, root, *expression);
        }
      }
    } else if (key == "family") {
      if (!child->is(JsonType::null)) API_EXPAND_FAMILY(eh, communication, *child);
    } else if (std::find(std::begin(other_keys), std::end(other_keys), key) == std::end(other_keys)) {
      eh.error(text(json_path(*child), " is not a recognised key"));  // a part that is misspelt would be lost
    }
    if (eh.terminate()) return;
  }
  for (std::string_view part : term_parts) {
    JsonNode* node = model.find(part);
    if (node == nullptr) continue;
    API_EXPAND_MODEL_PARTS(eh, communication, root, *node, part);
    if (eh.terminate()) return;
  }
}

}  // namespace

void API_EXPAND_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, bool& present)
{
  const Frame here{eh, __func__};
  present = false;
  REPORT_IF_JSON_KEY_DUPLICATED(eh, root, "model");
  JsonNode* model = root.find("model");
  if (eh.terminate() || model == nullptr || model->is(JsonType::null)) return;
  if (model->is(JsonType::array)) model->unpack();
  if (model->is(JsonType::array) && model->size() == 1)
    model->replace_with(model->detach(model->children().front().get()));
  present = model->size() > 0;
  if (!model->is(JsonType::array) || !present) {
    L_EXPAND_ONE_MODEL(eh, communication, root, *model);
    return;
  }
  for (const auto& each : model->children()) {
    L_EXPAND_ONE_MODEL(eh, communication, root, *each);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
