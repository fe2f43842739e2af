// The entry of standardisation, and the shorthand keys beside the model: dataset, wald, na_action.
#include <utility>

#include "base/text.h"
#include "model/expand_model.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_FIND_SINGLE: the one child of a key; a null is taken out and counts as absent, a repeated key is an
/// error.
JsonNode* L_FIND_SINGLE(ERROR_HANDLER& eh, JsonNode& root, std::string_view key)
{
  const Frame here{eh, __func__};
  REPORT_IF_JSON_KEY_DUPLICATED(eh, root, key);
  JsonNode* node = root.find(key);
  if (node == nullptr || !node->is(JsonType::null)) return node;
  root.detach(node);
  return nullptr;
}

/// Sets a key of an object, in its place when it is there already.
template <class Value>
void set_key(JsonNode& object, std::string_view key, Value value)
{
  if (JsonNode* node = object.find(key)) {
    node->set(std::move(value));
  } else {
    object.add_value(std::string(key), std::move(value));
  }
}

/// A word of a list under a key; -1 when the key is missing or, with a complaint, when the word is none of
/// them.
int word_of(ERROR_HANDLER& eh, const JsonNode& object, std::string_view key,
            std::initializer_list<std::string_view> words)
{
  const JsonNode* node = object.find(key);
  if (node == nullptr) return -1;
  int k = 0;
  for (std::string_view word : words) {
    if (node->is_text(word)) return k;
    ++k;
  }
  REPORT_JSON_ERROR(eh, *node, words);
  return -1;
}

void refuse_unknown_keys(ERROR_HANDLER& eh, const JsonNode& object,
                          std::initializer_list<std::string_view> known)
{
  for (const auto& child : object.children()) {
    bool found = false;
    for (std::string_view key : known) found = found || child->name == key;
    if (!found) eh.error(text(json_path(*child), " is not a recognised key"));
  }
}

}  // namespace

void API_EXPAND_DATASETS(ERROR_HANDLER& eh, JsonNode& root)
{
  const Frame here{eh, __func__};
  JsonNode* first = root.find("dataset");
  if (first == nullptr) return;
  if (first->is(JsonType::object)) {
    auto entry = std::make_unique<JsonNode>(std::move(*first));
    first->name = std::exchange(entry->name, {});
    first->set_array();
    first->add(std::move(entry));
  }
  if (!first->is(JsonType::array) || first->packed()) {
    REPORT_JSON_ERROR(eh, *first, {"an object", "an array of objects"});
    return;
  }
  // Datasets of further documents go behind those of the first.
  while (root.count("dataset") > 1) {
    JsonNode* more = nullptr;
    for (const auto& child : root.children())
      if (child->name == "dataset" && child.get() != first) more = child.get();
    std::unique_ptr<JsonNode> taken = root.detach(more);
    if (taken->is(JsonType::object)) {
      taken->name.clear();
      first->add(std::move(taken));
      continue;
    }
    while (!taken->children().empty()) first->add(taken->detach(taken->children().front().get()));
  }
  for (const auto& entry : first->children()) {
    if (!entry->is(JsonType::object)) {
      REPORT_JSON_ERROR(eh, *entry, {"an object"});
    } else {
      API_EXPAND_GROUPS(eh, *entry);
    }
    if (eh.terminate()) return;
  }
}

void API_EXPAND_WALD(ERROR_HANDLER& eh, JsonNode& root, JsonNode& options)
{
  const Frame here{eh, __func__};
  JsonNode* wald = L_FIND_SINGLE(eh, root, "wald");
  if (eh.terminate() || wald == nullptr) return;
  if (!wald->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, *wald, {"an object"});
    return;
  }
  refuse_unknown_keys(eh, *wald, {"den_df", "ss_type", "f_test"});
  if (eh.terminate()) return;
  constexpr std::int64_t ddf[] = {-1, 1, 2};
  if (const int k = word_of(eh, *wald, "den_df", {"none", "numeric", "algebraic"}); k >= 0)
    set_key(options, "ddf", ddf[k]);
  if (eh.terminate()) return;
  const int type = word_of(eh, *wald, "ss_type", {"conditional", "incremental"});
  if (eh.terminate()) return;
  if (type == 0) set_key(options, "fcon", true);
  if (type == 1) options.remove("fcon");
  if (std::optional<std::string> test = GET_VALUE_FROM_JPTR_STRING(eh, *wald, "f_test", false)) {
    for (char& c : *test)
      if (c == ';') c = '|';
    set_key(options, "fown", text("!FOWN ", *test));
  }
  if (eh.terminate()) return;
  root.detach(wald);
}

void API_EXPAND_NA_ACTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                          JsonNode& options)
{
  const Frame here{eh, __func__};
  JsonNode* policy = L_FIND_SINGLE(eh, root, "na_action");
  if (eh.terminate() || policy == nullptr) return;
  if (!policy->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, *policy, {"an object"});
    return;
  }
  refuse_unknown_keys(eh, *policy, {"x", "y"});
  if (eh.terminate()) return;
  constexpr const char* of_x[] = {"mv_remove", "mv_include", "mv_fail"};
  const int x = word_of(eh, *policy, "x", {"omit", "include", "fail"});
  if (eh.terminate()) return;
  if (x >= 0) set_key(options, "missing_values", of_x[x]);
  const int y = word_of(eh, *policy, "y", {"omit", "include", "fail"});
  if (eh.terminate()) return;
  if (y == 2) set_key(options, "y_missing_values", "mv_fail");
  if (y != 1) {
    root.detach(policy);
    return;
  }
  for (JsonNode* model : models_of(root)) {
    JsonNode* sparse = model->find("sparse");
    if (sparse == nullptr) sparse = &model->add("sparse", JsonType::object);
    JsonNode* terms = sparse->find("terms");
    if (terms == nullptr) terms = &sparse->add("terms", JsonType::array);
    bool present = false;
    for (const auto& term : terms->children())
      present = present || plain_name(*term) == communication.VARIABLE_NAME_MV;
    if (!present) terms->add_value("", communication.VARIABLE_NAME_MV);
  }
  root.detach(policy);
}

void API_STANDARDISE_AND_EXPAND_JSON(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* root,
                                     bool& models_present)
{
  const Frame here{eh, __func__};
  models_present = false;
  if (root == nullptr) {
    eh.internal("JPTR is not associated");
    return;
  }
  if (!root->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, *root, {"an object"});
    return;
  }
  JsonNode* options = L_FIND_SINGLE(eh, *root, "options");
  if (eh.terminate()) return;
  if (options == nullptr) {
    options = &root->add("options", JsonType::object);
  } else if (!options->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, *options, {"an object"});
    return;
  }

  API_EXPAND_DATASETS(eh, *root);
  if (eh.terminate()) return;
  API_EXPAND_MODEL(eh, communication, *root, models_present);
  if (eh.terminate()) return;
  if (models_present) {
    API_EXPAND_WALD(eh, *root, *options);
    if (eh.terminate()) return;
    API_EXPAND_NA_ACTION(eh, communication, *root, *options);
    if (eh.terminate()) return;
    API_STANDARDISE_AND_EXPAND_PREDICT(eh, communication, *root);
    if (eh.terminate()) return;
  }
  if (options->size() == 0) root->detach(options);
  WARN_OF_UNKNOWN_KEYS(eh, *root);
}

}  // namespace tolvan
