// Predict statements: API_STANDARDISE_AND_EXPAND_PREDICT and the forms in which a caller may write their
// lists.
#include <algorithm>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::string_view term_lists[] = {"ignore", "use", "except", "onlyuse", "associate"};
constexpr std::string_view factor_lists[] = {"present", "average",
                                             "parallel"};  // each factor may have values
constexpr std::string_view other_keys[] = {"classify", "levels", "prwts", "options"};

/// L_EXPAND_TERM_LIST: a formula, or an array of formulas, becomes an object with terms.
void L_EXPAND_TERM_LIST(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& node)
{
  const Frame here{eh, __func__};
  if (node.is(JsonType::object) && node.find("terms") != nullptr && node.find("terms")->is(JsonType::array)) {
    // the standard form, given back
  } else if (node.is(JsonType::string)) {
    API_EXPAND_FORMULA_STRING(eh, communication, node, "predict");
  } else {
    const bool strings = node.is(JsonType::array) && !node.packed() &&
                         std::all_of(node.children().begin(), node.children().end(),
                                     [](const auto& child) { return child->is(JsonType::string); });
    if (!strings) {
      eh.error(text("was expecting either a string or a vector of strings for ", node.name));
      return;
    }
    auto list = std::make_unique<JsonNode>(JsonType::object);
    list->add("terms", JsonType::array);
    for (const auto& child : node.children()) {
      API_FORMULA_STRING_TO_JPTR(eh, communication, list.get(), child->text(), "terms");
      if (eh.terminate()) return;
    }
    node.replace_with(std::move(list));
  }
  if (eh.terminate()) return;
  JsonNode& terms = *node.find("terms");
  API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, terms, {.part = "predict"});
  if (!eh.terminate()) API_DROP_DUPLICATE_TERMS(eh, communication, terms, "predict");
}

/// A list of values for a factor; one value stands for itself.
void add_values(JsonNode& factor, const JsonNode& given)
{
  factor.remove("values");
  std::unique_ptr<JsonNode> values = given.clone();
  if (!values->is(JsonType::array)) {
    auto list = std::make_unique<JsonNode>(JsonType::array);
    if (values->is(JsonType::integer)) {
      list->append_number(values->integer());
    } else if (values->is(JsonType::real)) {
      list->append_number(values->number());
    } else {
      values->name.clear();
      list->add(std::move(values));
    }
    values = std::move(list);
  }
  values->name = "values";
  factor.add(std::move(values));
}

/// L_EXPAND_FACTOR_LIST: names of factors, or a dictionary from names to values, become an object with terms.
void L_EXPAND_FACTOR_LIST(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                          JsonNode& node)
{
  const Frame here{eh, __func__};
  if (node.is(JsonType::object) && node.find("terms") == nullptr) {
    auto list = std::make_unique<JsonNode>(JsonType::object);
    JsonNode& terms = list->add("terms", JsonType::array);
    for (const auto& entry : node.children()) {
      JsonNode& factor = terms.add("", JsonType::object);
      factor.add_value("term_name", entry->name);
      if (!entry->is(JsonType::null)) add_values(factor, *entry);
    }
    node.replace_with(std::move(list));
    return;
  }
  if (node.is(JsonType::array)) {
    for (std::int64_t k = 0; k < node.size(); ++k) {
      const JsonNode& element = node.element(k);
      if (element.is(JsonType::string)) continue;
      eh.error(text("expected a factor name to be supplied for elements of ", node.name,
                    ", supplied value: ", std::string_view(json_text(element)).substr(0, 200)));
      return;
    }
  } else if (!node.is(JsonType::string) && !node.is(JsonType::object)) {
    eh.error(
        text("expected either a factor name, an array of factor names or a dictionary, with the keys for ",
             node.name));
    return;
  }
  L_EXPAND_TERM_LIST(eh, communication, root, node);
}

/// L_MERGE_LEVELS: gives the levels to the classifying factors that they belong to.
void L_MERGE_LEVELS(ERROR_HANDLER& eh, const JsonNode& levels, JsonNode& classify)
{
  const Frame here{eh, __func__};
  std::vector<std::string> unknown;
  const auto give = [&](const std::string& name, const JsonNode& values) {
    for (const auto& factor : classify.children()) {
      if (plain_name(*factor) != name) continue;
      add_values(*factor, values);
      return;
    }
    unknown.push_back(name);
  };
  bool good = levels.is(JsonType::object) || (levels.is(JsonType::array) && !levels.packed());
  for (const auto& entry : levels.children()) {
    if (levels.is(JsonType::object)) {
      give(entry->name, *entry);
      continue;
    }
    const JsonNode* values = entry->find("values");
    const std::string name(plain_name(*entry));
    good = good && values != nullptr && !name.empty();
    if (good) give(name, *values);
  }
  if (!good) {
    eh.error("invalid type supplied for predict levels");
  } else if (!unknown.empty()) {
    eh.error(text("levels were supplied for terms not in the predict classify: ", join(unknown, ", ")));
  }
}

/// API_EXPAND_PREDICT_CLASSIFY: turns the classifying term into the list of its factors with their levels.
void API_EXPAND_PREDICT_CLASSIFY(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                                 JsonNode& statement)
{
  const Frame here{eh, __func__};
  JsonNode& classify = *statement.find("classify");
  const bool standard =
      classify.is(JsonType::array) && !classify.packed() && classify.size() > 0 &&
      std::all_of(classify.children().begin(), classify.children().end(), [](const auto& child) {
        return child->is(JsonType::object) && !plain_name(*child).empty();
      });
  if (!standard) {
    L_EXPAND_TERM_LIST(eh, communication, root, classify);
    if (eh.terminate()) return;
    const JsonNode& terms = *classify.find("terms");
    if (terms.size() != 1 || terms.children().front()->find("linked") != nullptr) {
      eh.error("was expecting only a single term, or an interaction for the predict classify");
      return;
    }
    const JsonNode& term = *terms.children().front();
    const JsonNode* interaction = term.find("interaction");
    auto factors = std::make_unique<JsonNode>(JsonType::array);
    const auto add = [&](const JsonNode& factor) {
      factors->add("", JsonType::object)
          .add_value("term_name", GET_FACNAME_FROM_JPTR(eh, communication, factor));
    };
    if (interaction == nullptr) add(term);
    if (interaction != nullptr)
      for (const auto& factor : interaction->children()) add(*factor);
    classify.replace_with(std::move(factors));
  }
  if (JsonNode* levels = statement.find("levels")) {
    L_MERGE_LEVELS(eh, *levels, classify);
    if (!eh.terminate()) statement.detach(levels);
  }
}

/// API_EXPAND_PREDICT: brings the lists of one predict statement into the standard form.
void API_EXPAND_PREDICT(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                        JsonNode& statement)
{
  const Frame here{eh, __func__};
  const auto among = [](std::string_view key, const auto& keys) {
    return std::find(std::begin(keys), std::end(keys), key) != std::end(keys);
  };
  if (statement.find("classify") == nullptr) {
    REPORT_JSON_ERROR(eh, statement, "classify");
    return;
  }
  API_EXPAND_PREDICT_CLASSIFY(eh, communication, root, statement);
  if (eh.terminate()) return;
  for (const auto& child : statement.children()) {
    if (among(child->name, term_lists)) {
      L_EXPAND_TERM_LIST(eh, communication, root, *child);
    } else if (among(child->name, factor_lists)) {
      L_EXPAND_FACTOR_LIST(eh, communication, root, *child);
    } else if (!among(child->name, other_keys)) {
      eh.error(text(json_path(*child), " is not a recognised key"));
    }
    if (eh.terminate()) return;
  }
}

}  // namespace

void API_STANDARDISE_AND_EXPAND_PREDICT(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root)
{
  const Frame here{eh, __func__};
  JsonNode* first = root.find("predict");
  if (first == nullptr) return;
  if (first->is(JsonType::null)) {
    root.detach(first);
    return;
  }
  const std::int64_t nodes = root.count("predict");
  bool good = true;
  for (const auto& child : root.children()) {
    if (child->name != "predict") continue;
    const bool list = child->is(JsonType::array) && !child->packed() && nodes == 1 &&
                      std::all_of(child->children().begin(), child->children().end(),
                                  [](const auto& entry) { return entry->is(JsonType::object); });
    good = good && (list || child->is(JsonType::object));
  }
  if (!good) {
    eh.error(
        "expected either a single predict node containing an array of objects or one or more predict nodes "
        "each "
        "containing a single object");
    return;
  }
  if (first->is(JsonType::object)) {
    auto statements = std::make_unique<JsonNode>(JsonType::array);
    for (const auto& child : root.children()) {
      if (child->name != "predict") continue;
      std::unique_ptr<JsonNode> statement = child->clone();
      statement->name.clear();
      statements->add(std::move(statement));
    }
    while (root.count("predict") > 0) root.remove("predict");
    statements->name = "predict";
    first = &root.add(std::move(statements));
  }
  for (const auto& statement : first->children()) {
    API_EXPAND_PREDICT(eh, communication, root, *statement);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
