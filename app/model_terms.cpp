#include "app/model_terms.h"

#include "app/json_value.h"

namespace tolvan::driver {
namespace {

/// The name of a term in the standard form of a request.
std::string term_name(const Json& term)
{
  if (term.is(JsonKind::string)) return term.text;
  for (const char* key : {"user_facing_factor_name", "term_name"})
    if (const Json* name = term.string_at(key)) return name->text;
  std::string name;
  if (const Json* parts = term.find("interaction")) {
    for (const Json& part : parts->items) name += (name.empty() ? "" : ":") + term_name(part);
  } else if (const Json* function = term.find("function")) {
    if (const Json* own = function->string_at("user_facing_factor_name")) return own->text;
    if (const Json* own = function->string_at("name")) name = own->text + "(";
    std::string arguments;
    if (const Json* list = function->find("arguments")) {
      for (const Json& argument : list->items) {
        const Json* supplied = argument.find("supplied");
        const Json* value = argument.find("value");
        if (!value || (supplied && !supplied->truth())) continue;
        arguments +=
            (arguments.empty() ? "" : ",") + (value->items.empty() ? value->text : term_name(*value));
      }
    }
    name += arguments + ")";
  }
  return name;
}

}  // namespace

std::vector<std::string> model_terms(Engine& engine, const char* part)
{
  std::vector<std::string> names;
  const auto request = read_json(engine.json("INPUT_JSON").value_or(""));
  const Json* model = request ? request->find("model") : nullptr;
  if (model && model->is(JsonKind::array) && !model->items.empty()) {  // several: the one that was fitted
    const Json* chosen = request->find("dopart");
    const auto k = static_cast<std::size_t>(chosen ? chosen->integer(1) : 1);
    model = &model->items[k >= 1 && k <= model->items.size() ? k - 1 : 0];
  }
  const Json* of = model ? model->find(part) : nullptr;
  if (!of) return names;
  // A list of terms, one term, or a list of objects that hold them.
  const auto add = [&names](const Json& terms) {
    if (terms.is(JsonKind::array)) {
      for (const Json& term : terms.items) names.push_back(term_name(term));
    } else {
      names.push_back(term_name(terms));
    }
  };
  const auto unpack = [&add](const Json& part_of_model) {
    const Json* terms = part_of_model.find("terms");
    add(terms ? *terms : part_of_model);
  };
  if (of->is(JsonKind::array)) {
    for (const Json& each : of->items) unpack(each);
  } else {
    unpack(*of);
  }
  return names;
}

}  // namespace tolvan::driver
