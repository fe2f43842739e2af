// Functions in terms: their place, their arguments in declared order, and their values.
#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/formula_text.h"
#include "model/function_catalogue.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// L_FRAME_ARGUMENT: lets a caller write a bare value in the place of an argument object.
void L_FRAME_ARGUMENT(ERROR_HANDLER& eh, JsonNode& argument)
{
  const Frame here{eh, __func__};
  const bool framed = argument.is(JsonType::object) &&
                      (argument.find("value") != nullptr || argument.find("name") != nullptr);
  if (!framed) {
    std::unique_ptr<JsonNode> value = argument.clone();
    value->name = "value";
    argument.set_object();
    argument.add(std::move(value));
  }
  if (const JsonNode* name = argument.find("name"); name != nullptr && !name->is(JsonType::string)) {
    REPORT_JSON_ERROR(eh, *name, {"the name of an argument"});
  } else if (argument.find("value") == nullptr) {
    REPORT_JSON_ERROR(eh, argument, "value");
  }
}

/// L_MATCH_ARGUMENTS: finds for each declared argument the supplied one, null if there is none.
std::vector<const JsonNode*> L_MATCH_ARGUMENTS(ERROR_HANDLER& eh, const JsonNode& arguments,
                                               const MODEL_FUN_INFO& info)
{
  const Frame here{eh, __func__};
  std::vector<const JsonNode*> supplied(info.ARGS.size(), nullptr);
  std::size_t positional = 0;
  bool named = false;
  for (const auto& argument : arguments.children()) {
    const JsonNode* name = argument->find("name");
    if (name == nullptr) {
      if (named) {
        eh.error("all positional arguments must preceed all named arguments");  // sic
        return supplied;
      }
      supplied[positional++] = argument.get();
      continue;
    }
    named = true;
    std::size_t k = 0;
    while (k < info.ARGS.size() && info.ARGS[k].NAME != name->text()) ++k;
    if (k == info.ARGS.size()) {
      eh.error(text(name->text(), " is not a valid argument name"));
    } else if (k < positional) {
      eh.error(text(name->text(), " was supplied as both a positional and named argument"));
    } else if (supplied[k] != nullptr) {
      eh.error(text("a duplicate value for ", name->text(), " was supplied"));
    }
    if (eh.terminate()) return supplied;
    supplied[k] = argument.get();
  }
  return supplied;
}

/// A text that names a variable becomes a term, a call a function, any other formula a list of terms.
void set_term_value(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& value)
{
  const SYMBOLS symbols(communication);
  const std::string s(trim(value.text()));
  value.set_object();
  if (is_call(s)) {
    API_FUNCTION_STRING_TO_JPTR(eh, communication, value, s);
    return;
  }
  for (char c : s) {
    if (symbols.is_sign(c) || symbols.is_operator(c) || c == '(' || c == ')') {
      API_FORMULA_STRING_TO_JPTR(eh, communication, &value, s, "terms");
      return;
    }
  }
  value.add_value("term_name", s);
}

/// Arguments that stand for a variable, a factor or a formula.
bool is_variable_argument(const MODEL_ARG_INFO& argument)
{
  return argument.TYPE == ArgType::term && argument.NDIM == 0 &&
         (argument.NAME == "variable_name" || argument.NAME == "x" || argument.NAME == "y");
}

/// L_CHECK_TERM_FORM: complains of a term that is given in two forms, whose drop is no logical, or of which a part is dropped.
///   part   whether it stands within another term
void L_CHECK_TERM_FORM(ERROR_HANDLER& eh, const JsonNode& term, bool part)
{
  const Frame here{eh, __func__};
  if (const JsonNode* drop = term.find("drop");
      drop != nullptr && !drop->is(JsonType::logical) && !drop->is(JsonType::null)) {
    REPORT_JSON_ERROR(eh, *drop, {"true", "false"});
    return;
  }
  if (part && has_flag(term, "drop")) {
    eh.error(text(json_path(term), " is part of a term, it can not be dropped by itself"));
    return;
  }
  std::vector<std::string> forms;
  for (const char* form : {"term_name", "interaction", "function", "linked"})
    if (term.find(form) != nullptr) forms.emplace_back(form);
  const bool linked_by_function = forms.size() == 2 && forms[0] == "function" && forms[1] == "linked";
  if (forms.size() > 1 && !linked_by_function)
    eh.error(text(json_path(term), " has more than one form of a term: ", join(forms, ", ")));
}

/// True if a value is a call of fac(), whose levels are places in one or two dimensions.
bool is_fac(const JsonNode& value)
{
  if (value.is(JsonType::string)) return trim(value.text()).starts_with("fac(") && is_call(trim(value.text()));
  const JsonNode* function = value.find("function");
  return function != nullptr && function_name(*function) == "fac";
}

/// L_HANDLE_FUNCTION_ARGUMENTS: puts the arguments in declared order and completes them.
void L_HANDLE_FUNCTION_ARGUMENTS(ERROR_HANDLER& eh, JsonNode& function, const MODEL_FUN_INFO& info)
{
  const Frame here{eh, __func__};
  JsonNode* arguments = function.find("arguments");
  if (arguments == nullptr) arguments = &function.add("arguments", JsonType::array);
  if (!arguments->is(JsonType::array)) {
    REPORT_JSON_ERROR(eh, *arguments, {"an array of arguments"});
    return;
  }
  arguments->unpack();
  if (arguments->size() > info.NARGS()) {
    eh.error(text(arguments->size(), " arguments were supplied, but at most ", info.NARGS(),
                  " where expected"));  // sic
    return;
  }
  for (const auto& argument : arguments->children()) {
    L_FRAME_ARGUMENT(eh, *argument);
    if (eh.terminate()) return;
  }
  const std::vector<const JsonNode*> supplied = L_MATCH_ARGUMENTS(eh, *arguments, info);
  if (eh.terminate()) return;

  auto ordered = std::make_unique<JsonNode>(JsonType::array);
  for (std::size_t k = 0; k < info.ARGS.size(); ++k) {
    const MODEL_ARG_INFO& declared = info.ARGS[k];
    JsonNode& argument = ordered->add("", JsonType::object);
    argument.add_value("name", std::string(declared.NAME));
    const bool given = supplied[k] != nullptr && is_supplied(*supplied[k]);
    if (given) {
      argument.add(supplied[k]->find("value")->clone());
    } else if (!declared.PAIRED.empty() && supplied[0] != nullptr && is_fac(*supplied[0]->find("value"))) {
      MAT_DEFAULT(eh, declared, argument);  // fac(x,y) has both coordinates
    } else if (declared.REQUIRED && !declared.HAS_DEFAULT) {
      eh.error(text("argument ", declared.NAME, " is required"));
      if (declared.NAME == "source") eh.continuation("it names a relationship matrix or the file of a pedigree");
      return;
    } else {
      MAT_DEFAULT(eh, declared, argument);
    }
    if (declared.DROP_FROM_FACNAME) argument.add_value("drop_from_facname", true);
  }
  arguments->replace_with(std::move(ordered));
}

/// L_STANDARDISE_FUNCTION: all steps for one function node; `inner` tells that a function within it failed.
void L_STANDARDISE_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                            JsonNode& function, TermPlace place, bool& inner)
{
  const Frame here{eh, __func__};
  if (!function.is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, function, {"an object with name and arguments"});
    return;
  }
  const std::optional<std::string> name = GET_VALUE_FROM_JPTR_STRING(eh, function, "name", true);
  if (eh.terminate()) return;
  const MODEL_FUN_INFO info = GET_MODEL_FUNCTION_INFO(eh, *name);
  // A predict statement may name any term of the model.
  if (place.part != "predict" || info.NAME.empty())
    CHECK_FUNCTION_PLACE(eh, info, *name, place.part, place.in_function, place.in_interaction);
  if (eh.terminate()) return;
  L_HANDLE_FUNCTION_ARGUMENTS(eh, function, info);
  if (eh.terminate()) return;

  const auto& arguments = function.find("arguments")->children();
  for (std::size_t k = 0; k < arguments.size(); ++k) {
    JsonNode& value = *arguments[k]->find("value");
    if (!is_supplied(*arguments[k])) continue;
    const bool node = value.is(JsonType::object);
    const ArgType type = info.ARGS[k].TYPE;
    if (!node || type == ArgType::string || type == ArgType::logical) {
      MAT_VALIDATE(eh, communication, info.ARGS[k], value, *name);
      if (eh.terminate()) return;
      if (!is_variable_argument(info.ARGS[k]) || !value.is(JsonType::string)) continue;
      set_term_value(eh, communication, value);
      if (eh.terminate()) return;
    }
    L_CHECK_TERM_FORM(eh, value, true);
    if (eh.terminate()) return;
    const TermPlace within{.part = place.part, .in_function = true, .depth = place.depth + 1};
    if (value.find("function") != nullptr) {
      API_PROCESS_MODEL_FUNCTION(eh, communication, root, value, within);
      inner = eh.terminate();
    } else if (JsonNode* terms = value.find("terms"); terms != nullptr && terms->is(JsonType::array)) {
      API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, *terms, within);
      inner = eh.terminate();
    } else if (plain_name(value).empty()) {
      REPORT_JSON_ERROR(eh, value, {"a term", "a function", "a formula"});
    }
    if (eh.terminate()) return;
  }
}

}  // namespace

void API_PROCESS_MODEL_FUNCTION(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                                JsonNode& term, TermPlace place)
{
  const Frame here{eh, __func__};
  JsonNode* function = term.find("function");
  if (function == nullptr) return;
  // A standard form that comes back is standardised once more: what a caller wrote may not claim to be done.
  if (function->is(JsonType::object)) function->remove("already_processed");
  const std::string written = text_as_written(communication, term);
  bool inner = false;
  L_STANDARDISE_FUNCTION(eh, communication, root, *function, place, inner);
  if (!eh.terminate()) inner = API_ADJUST_FUNCTION(eh, communication, root, term, place);
  if (eh.terminate()) {
    // The innermost call names itself; those around it would only repeat it.
    if (!inner) eh.continuation(text("in the function call ", written));
    return;
  }
  function->add_value("already_processed", true);
}

void API_PROCESS_MODEL_FUNCTIONS(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode& root,
                                 JsonNode& list, TermPlace place)
{
  const Frame here{eh, __func__};
  if (place.depth > deepest_call) {
    eh.error(
        text("terms are nested deeper than ", deepest_call, " levels in ", json_path(list).substr(0, 200)));
    return;
  }
  if (list.packed()) list.unpack();
  for (const auto& term : list.children()) {
    if (term->is(JsonType::string)) continue;
    L_CHECK_TERM_FORM(eh, *term, place.in_interaction || place.in_function);
    if (eh.terminate()) return;
    bool known = !plain_name(*term).empty() || term->find("function") != nullptr;
    for (std::string_view key : {"interaction", "linked", "structure"}) {
      JsonNode* inner = term->find(key);
      if (inner == nullptr) continue;
      known = known || key != "structure";
      if (!inner->is(JsonType::array) || inner->size() == 0) {
        REPORT_JSON_ERROR(eh, *inner, {"an array of terms"});
        return;
      }
      TermPlace within = place;
      within.in_interaction = place.in_interaction || key == "interaction";
      ++within.depth;
      API_PROCESS_MODEL_FUNCTIONS(eh, communication, root, *inner, within);
      if (eh.terminate()) return;
    }
    if (!known) {
      REPORT_JSON_ERROR(eh, *term, {"the name of a term", "an interaction", "a function"});
      return;
    }
    API_PROCESS_MODEL_FUNCTION(eh, communication, root, *term, place);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
