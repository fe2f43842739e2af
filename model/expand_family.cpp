// The family of a model: API_EXPAND_FAMILY, API_HANDLE_FAMILY_ARGUMENTS.
#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_EXPAND_FAMILY_ENTRY: "binomial(link=logit)", "poisson", {"name", "link", ...} or {"function": ...}.
void L_EXPAND_FAMILY_ENTRY(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& entry)
{
  const Frame here{eh, __func__};
  if (entry.is(JsonType::string)) {
    std::string call(trim(entry.text()));
    if (call.find_first_of("()") == std::string::npos) call += "()";
    entry.set_object();
    API_FUNCTION_STRING_TO_JPTR(eh, communication, entry, call);
  } else if (entry.is(JsonType::object) && entry.find("function") == nullptr) {
    // The flat form: all keys but the name are arguments.
    if (entry.find("name") == nullptr) {
      REPORT_JSON_ERROR(eh, entry, "name");
      return;
    }
    auto function = std::make_unique<JsonNode>(JsonType::object, "function");
    function->add(entry.remove("name"));
    JsonNode& arguments = function->add("arguments", JsonType::array);
    for (const auto& key : entry.children()) {
      JsonNode& argument = arguments.add("", JsonType::object);
      argument.add_value("name", key->name);
      std::unique_ptr<JsonNode> value = key->clone();
      value->name = "value";
      argument.add(std::move(value));
    }
    entry.set_object();
    entry.add(std::move(function));
  }
  if (eh.terminate()) return;
  JsonNode* function = entry.find("function");
  if (function == nullptr || !function->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, entry, {"the name of a family", "an object with the key name"});
    return;
  }
  API_HANDLE_FAMILY_ARGUMENTS(eh, *function);
}

}  // namespace

void API_HANDLE_FAMILY_ARGUMENTS(ERROR_HANDLER& eh, JsonNode& function)
{
  const Frame here{eh, __func__};
  if (GET_VALUE_FROM_JPTR_STRING(eh, function, "name", true); eh.terminate()) return;
  JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr) arguments = &function.add("arguments", JsonType::array);
  arguments->unpack();
  for (const auto& argument : arguments->children()) {
    const JsonNode* name = argument->find("name");
    if (name == nullptr || !name->is(JsonType::string)) {
      eh.error("was expecting only named arguments in a family description");
    } else if (argument->find("value") == nullptr) {
      REPORT_JSON_ERROR(eh, *argument, "value");
    } else if (find_argument(function, name->text()) != argument.get()) {
      eh.error(text("a duplicate value for ", name->text(), " was supplied"));
    }
    if (eh.terminate()) return;
  }
}

void API_EXPAND_FAMILY(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& family)
{
  const Frame here{eh, __func__};
  if (family.is(JsonType::string) || family.is(JsonType::object)) {
    std::unique_ptr<JsonNode> entry = family.clone();
    entry->name.clear();
    family.set_array();
    family.add(std::move(entry));
  }
  if (!family.is(JsonType::array) || family.packed() || family.size() == 0) {
    REPORT_JSON_ERROR(eh, family, {"the name of a family", "an object", "an array of these"});
    return;
  }
  for (const auto& entry : family.children()) {
    L_EXPAND_FAMILY_ENTRY(eh, communication, *entry);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
