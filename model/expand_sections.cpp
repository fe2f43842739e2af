// Sums over sections, dsum(): each term of the sum at each level.  Routines: API_CHECK_DSUM, API_EXPAND_DSUM.
#include <algorithm>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

bool is_dsum(const JsonNode& term)
{
  const JsonNode* function = term.find("function");
  return function != nullptr && function_name(*function) == "dsum";
}

/// True if the levels are vectors, one for each term.
bool holds_vectors(const JsonNode* levels)
{
  return levels != nullptr && levels->is(JsonType::array) && levels->size() > 0 && !levels->packed() &&
         levels->children().front()->is(JsonType::array);
}

/// Adds what a term consists of to an interaction: its components, or the term itself.
void add_components(JsonNode& interaction, const JsonNode& term)
{
  if (const JsonNode* components = term.find("interaction")) {
    for (const auto& component : components->children()) interaction.add(component->clone());
    return;
  }
  std::unique_ptr<JsonNode> whole = term.clone();
  whole->name.clear();
  interaction.add(std::move(whole));
}

/// L_EXPAND_DSUM: the terms that one dsum() stands for, each an interaction of sat() with a term of the sum.
std::vector<std::unique_ptr<JsonNode>> L_EXPAND_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                                     const JsonNode& call)
{
  const Frame here{eh, __func__};
  std::vector<std::unique_ptr<JsonNode>> out;
  const JsonNode& function = *call.find("function");
  const std::string condition(trim(find_argument(function, "cond")->find("value")->text()));
  JsonNode sum(JsonType::object);
  const JsonNode* terms = API_FORMULA_STRING_TO_JPTR(
      eh, communication, &sum, find_argument(function, "model")->find("value")->text(), "terms");
  if (eh.terminate()) return out;
  const JsonNode* levels = supplied_value(function, "levels");
  const bool each_its_own = holds_vectors(levels);
  for (std::size_t k = 0; k < terms->children().size(); ++k) {
    const JsonNode& term = *terms->children()[k];
    if (has_flag(term, "drop") || term.find("linked") != nullptr || is_dsum(term)) {
      eh.error("invalid argument to dsum");
      eh.continuation(text("in the function call ", GET_FACNAME_FROM_JPTR(eh, communication, call)));
      return out;
    }
    auto section = std::make_unique<JsonNode>(JsonType::object);
    JsonNode& interaction = section->add("interaction", JsonType::array);
    JsonNode& sat = interaction.add("", JsonType::object).add("function", JsonType::object);
    sat.add_value("name", std::string("sat"));
    JsonNode& arguments = sat.add("arguments", JsonType::array);
    arguments.add("", JsonType::object).add_value("value", condition);
    if (levels != nullptr) {
      std::unique_ptr<JsonNode> own = each_its_own ? levels->children()[k]->clone() : levels->clone();
      own->name = "value";
      arguments.add("", JsonType::object).add(std::move(own));
    }
    add_components(interaction, term);
    // What the call carries beside it, such as initial values, goes to each of its terms.
    for (const auto& key : call.children())
      if (key->name != "function" && key->name != "user_facing_factor_name" && key->name != "drop") section->add(key->clone());
    out.push_back(std::move(section));
  }
  return out;
}

/// L_EXPAND_TERM: the terms in the place of one that is a dsum(), or an interaction that holds one; none where it is neither.
std::vector<std::unique_ptr<JsonNode>> L_EXPAND_TERM(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                                     const JsonNode& term)
{
  const Frame here{eh, __func__};
  if (is_dsum(term)) return L_EXPAND_DSUM(eh, communication, term);
  std::vector<std::unique_ptr<JsonNode>> out;
  const JsonNode* factors = term.find("interaction");
  if (factors == nullptr) return out;
  if (std::count_if(factors->children().begin(), factors->children().end(), [](const auto& f) { return is_dsum(*f); }) > 1) {
    eh.error("can only have one function in an interaction that expands to multiple terms");
    return out;
  }
  for (const auto& factor : factors->children()) {
    if (!is_dsum(*factor)) continue;
    for (const std::unique_ptr<JsonNode>& section : L_EXPAND_DSUM(eh, communication, *factor)) {
      auto whole = std::make_unique<JsonNode>(JsonType::object);
      JsonNode& interaction = whole->add("interaction", JsonType::array);
      for (const auto& other : factors->children())
        add_components(interaction, other.get() == factor.get() ? *section : *other);
      out.push_back(std::move(whole));
    }
  }
  return out;
}

}  // namespace

void API_CHECK_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& term)
{
  const Frame here{eh, __func__};
  const JsonNode& function = *term.find("function");
  JsonNode sum(JsonType::object);
  const JsonNode* terms = API_FORMULA_STRING_TO_JPTR(
      eh, communication, &sum, find_argument(function, "model")->find("value")->text(), "terms");
  const JsonNode* levels = supplied_value(function, "levels");
  if (eh.terminate() || levels == nullptr) return;
  const auto vectors =
      std::count_if(levels->children().begin(), levels->children().end(),
                    [](const auto& element) { return element->is(JsonType::array); });
  if (!levels->is(JsonType::array) || (vectors > 0 && vectors != levels->size())) {
    eh.error("expected the levels argument to either be a vector or a vector of vectors");
  } else if (vectors > 0 && vectors != terms->size()) {
    eh.error("expected the number of elements in the levels argument to match the number of terms");
    eh.continuation(text("number of terms: ", terms->size(), ", number of elements in levels: ", vectors));
  }
}

void API_EXPAND_DSUM(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root, JsonNode& list,
                     std::string_view part)
{
  const Frame here{eh, __func__};
  for (std::size_t k = 0; k < list.children().size(); ++k) {
    const JsonNode& term = *list.children()[k];
    std::vector<std::unique_ptr<JsonNode>> sections = L_EXPAND_TERM(eh, communication, term);
    if (eh.terminate()) return;
    if (sections.empty()) continue;
    const bool dropped = has_flag(term, "drop");
    JsonNode fresh(JsonType::array);
    for (std::unique_ptr<JsonNode>& section : sections) {
      if (dropped) section->add_value("drop", true);
      fresh.add(std::move(section));
    }
    API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, fresh, {.part = part});
    if (eh.terminate()) return;
    list.detach(list.children()[k].get());
    for (; !fresh.children().empty(); ++k)
      list.insert(static_cast<std::int64_t>(k), fresh.detach(fresh.children().front().get()));
    --k;
  }
}

}  // namespace tolvan
