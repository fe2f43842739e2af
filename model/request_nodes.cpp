#include "model/request_nodes.h"

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::size_t longest_value_shown = 200;

/// "a, b or c".
template <class Words>
std::string alternatives(const Words& words)
{
  std::string out;
  for (std::ptrdiff_t k = 0; k < std::ssize(words); ++k) {
    if (k > 0) out += k + 1 == std::ssize(words) ? " or " : ", ";
    out += *(words.begin() + k);
  }
  return out;
}

std::string shown_value(const JsonNode& node)
{
  std::string value = node.is(JsonType::string) ? node.text() : json_text(node);
  if (value.size() <= longest_value_shown) return value;
  std::size_t n = longest_value_shown;
  while (n > 0 && (static_cast<unsigned char>(value[n]) & 0xC0) == 0x80) --n;  // never half a character
  value.resize(n);
  return value + "...";
}

std::string shown_path(const JsonNode& node)
{
  std::string path = json_path(node);
  return path.empty() ? "the request" : path;
}

std::string bad_value(const JsonNode& node, const std::string& expected)
{
  return text("invalid value supplied for ", shown_path(node), ", was expecting one of: ", expected,
              ", supplied value = ", shown_value(node));
}

}  // namespace

void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& parent, std::string_view missing_key)
{
  const Frame here{eh, __func__};
  eh.error(text(missing_key, " is required but was not found in ", shown_path(parent)));
}

void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& node,
                       std::initializer_list<std::string_view> expected)
{
  const Frame here{eh, __func__};
  eh.error(bad_value(node, alternatives(expected)));
}

void REPORT_JSON_ERROR(ERROR_HANDLER& eh, const JsonNode& node, const std::vector<std::string>& expected)
{
  const Frame here{eh, __func__};
  eh.error(bad_value(node, alternatives(expected)));
}

void REPORT_IF_JSON_KEY_DUPLICATED(ERROR_HANDLER& eh, const JsonNode& object, std::string_view key)
{
  const Frame here{eh, __func__};
  if (object.count(key) > 1)
    eh.error(text("the key ", key, " was supplied more than once in ", shown_path(object)),
             Ecode::invalid_json);
}

void REPORT_DUPLICATED_JSON_KEYS(ERROR_HANDLER& eh, const JsonNode& root)
{
  const Frame here{eh, __func__};
  std::vector<const JsonNode*> waiting{&root};
  std::vector<std::string_view> keys;
  while (!waiting.empty()) {
    const JsonNode& node = *waiting.back();
    waiting.pop_back();
    for (const auto& child : node.children()) {
      if (child->is(JsonType::object) || child->is(JsonType::array)) waiting.push_back(child.get());
    }
    if (&node == &root || !node.is(JsonType::object)) continue;
    keys.clear();
    for (const auto& child : node.children()) keys.push_back(child->name);
    std::sort(keys.begin(), keys.end());
    if (const auto twice = std::adjacent_find(keys.begin(), keys.end()); twice != keys.end()) {
      REPORT_IF_JSON_KEY_DUPLICATED(eh, node, *twice);
      return;
    }
  }
}

std::optional<std::string> GET_VALUE_FROM_JPTR_STRING(ERROR_HANDLER& eh, const JsonNode& parent,
                                                      std::string_view key, bool required)
{
  const Frame here{eh, __func__};
  const JsonNode* node = parent.find(key);
  if (node == nullptr) {
    if (required) REPORT_JSON_ERROR(eh, parent, key);
    return {};
  }
  if (!node->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *node, {"a string"});
    return {};
  }
  return node->text();
}

bool GET_VALUE_FROM_JPTR_LOGICAL(ERROR_HANDLER& eh, const JsonNode& parent, std::string_view key,
                                 bool otherwise)
{
  const Frame here{eh, __func__};
  const JsonNode* node = parent.find(key);
  if (node == nullptr) return otherwise;
  if (!node->is(JsonType::logical)) REPORT_JSON_ERROR(eh, *node, {"true", "false"});
  return node->logical();
}

std::vector<std::string> GET_VALUE_FROM_JPTR_STRINGS(ERROR_HANDLER& eh, const JsonNode& parent,
                                                     std::string_view key)
{
  const Frame here{eh, __func__};
  std::vector<std::string> out;
  const JsonNode* node = parent.find(key);
  if (node == nullptr) return out;
  if (node->is(JsonType::string)) return {node->text()};
  bool good = node->is(JsonType::array) && !(node->packed() && node->number_count() > 0);
  for (const auto& child : node->children()) {
    good = good && child->is(JsonType::string);
    out.push_back(child->text());
  }
  if (!good) {
    REPORT_JSON_ERROR(eh, *node, {"a string", "a vector of strings"});
    out.clear();
  }
  return out;
}

std::vector<double> GET_VALUE_FROM_JPTR_REALS(ERROR_HANDLER& eh, const JsonNode& parent, std::string_view key)
{
  const Frame here{eh, __func__};
  std::vector<double> out;
  const JsonNode* node = parent.find(key);
  if (node == nullptr) return out;
  if (node->is_number()) return {node->number()};
  if (node->is(JsonType::array) && node->packed()) {
    for (std::int64_t k = 0; k < node->number_count(); ++k) out.push_back(node->number(k));
    return out;
  }
  bool good = node->is(JsonType::array);
  for (const auto& child : node->children()) {
    good = good && child->is_number();
    out.push_back(child->number());
  }
  if (!good) {
    REPORT_JSON_ERROR(eh, *node, {"a number", "a vector of numbers"});
    out.clear();
  }
  return out;
}

std::vector<JsonNode*> models_of(const JsonNode& request)
{
  std::vector<JsonNode*> models;
  JsonNode* model = request.find("model");
  if (model == nullptr) return models;
  if (model->is(JsonType::object)) models.push_back(model);
  if (model->is(JsonType::array))
    for (const auto& each : model->children())
      if (each->is(JsonType::object)) models.push_back(each.get());
  return models;
}

JsonNode* MOVE_JSON_NODE(ERROR_HANDLER& eh, JsonNode* node, JsonNode& new_parent, std::string_view new_name)
{
  const Frame here{eh, __func__};
  if (node == nullptr || node->parent() == nullptr) {
    eh.internal("move is not associated");
    return nullptr;
  }
  std::unique_ptr<JsonNode> moved = node->parent()->detach(node);
  if (!new_name.empty()) moved->name = new_name;
  return &new_parent.add(std::move(moved));
}

bool has_flag(const JsonNode& node, std::string_view key)
{
  const JsonNode* flag = node.find(key);
  return flag != nullptr && flag->logical();
}

std::string_view function_name(const JsonNode& function)
{
  const JsonNode* name = function.find("name");
  return name != nullptr && name->is(JsonType::string) ? std::string_view(name->text()) : std::string_view();
}

JsonNode* find_argument(const JsonNode& function, std::string_view name)
{
  const JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr) return nullptr;
  for (const auto& argument : arguments->children())
    if (const JsonNode* key = argument->find("name"); key != nullptr && key->is_text(name))
      return argument.get();
  return nullptr;
}

bool is_supplied(const JsonNode& argument)
{
  const JsonNode* flag = argument.find("supplied");
  return flag == nullptr || flag->logical();
}

const JsonNode* supplied_value(const JsonNode& function, std::string_view name)
{
  const JsonNode* argument = find_argument(function, name);
  return argument != nullptr && is_supplied(*argument) ? argument->find("value") : nullptr;
}

std::string_view plain_name(const JsonNode& node)
{
  if (node.is(JsonType::string)) return node.text();
  const JsonNode* name = node.find("term_name");
  return name != nullptr && name->is(JsonType::string) ? std::string_view(name->text()) : std::string_view();
}

}  // namespace tolvan
