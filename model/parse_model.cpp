// The model statement as a whole.  Routines: NEW_PARSE_LINEAR_MODEL, COMPLETE_LINEAR_MODEL.
#include <algorithm>

#include "base/text.h"
#include "model/parse_terms.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

constexpr std::string_view families[] = {"gaussian",          "binomial",    "poisson",   "gamma",
                                         "negative_binomial", "multinomial", "threshold", "cumulative"};
constexpr std::string_view links[] = {"identity", "logit",   "probit", "cloglog", "log",
                                      "sqrt",     "inverse", "LNR",    "INR"};

template <std::size_t n>
bool among(std::string_view word, const std::string_view (&words)[n])
{
  return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

/// True if a plain term of that name stands in any part.
bool holds_term(const JsonNode& model, std::string_view name)
{
  for (std::string_view part : {"fixed", "random", "sparse"}) {
    const JsonNode* node = model.find(part);
    const JsonNode* terms = node == nullptr ? nullptr : node->find("terms");
    if (terms == nullptr) continue;
    for (const auto& term : terms->children())
      if (plain_name(*term) == name && !has_flag(*term, "drop")) return true;
  }
  return false;
}

/// L_FIND_RESPONSES: the nodes that name the response variables, of one expression or of several.
std::vector<const JsonNode*> L_FIND_RESPONSES(ERROR_HANDLER& eh, const JsonNode& model)
{
  const Frame here{eh, __func__};
  const JsonNode* response = model.find("response");
  std::vector<const JsonNode*> nodes;
  if (response == nullptr) {
    REPORT_JSON_ERROR(eh, model, "response");
    return nodes;
  }
  const auto read_terms = [&](const JsonNode& expression) {
    const JsonNode* terms = expression.find("terms");
    if (terms == nullptr) return;
    if (!terms->is(JsonType::array)) {
      nodes.push_back(terms);
      return;
    }
    for (const auto& term : terms->children()) nodes.push_back(term.get());
  };
  read_terms(*response);
  if (response->is(JsonType::array))
    for (const auto& expression : response->children()) read_terms(*expression);
  if (nodes.empty()) REPORT_JSON_ERROR(eh, *response, {"the name of a variable"});
  return nodes;
}

/// The traits that a response node stands for: at() with several levels is one for each.
std::int64_t count_traits(const JsonNode& response)
{
  const JsonNode* function = response.find("function");
  const JsonNode* levels = function == nullptr ? nullptr : supplied_value(*function, "lvls");
  return levels != nullptr && levels->is(JsonType::array) ? levels->size() : 1;
}

/// The traits that the option asmv says stand in one response, a record each, by turns; 0: none do.
std::int64_t stacked_traits(const JsonNode& request, std::int64_t traits)
{
  const JsonNode* options = request.find("options");
  const JsonNode* asmv = options != nullptr && options->is(JsonType::object) ? options->find("asmv") : nullptr;
  return traits == 1 && asmv != nullptr && asmv->is(JsonType::integer) && asmv->integer() > 1 ? asmv->integer() : 0;
}

/// L_SET_FACTORS: the rows that every model has: the variables in request order, then the reserved factors.
void L_SET_FACTORS(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& model,
                   const std::vector<const JsonNode*>& responses)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t most_variables = 9990;
  if (parser.variables.count() > most_variables) {
    eh.error(text("the data have ", parser.variables.count(), " variables, at most ", most_variables,
                  " are possible"));
    return;
  }
  FACTOR_TABLE& factors = parser.factors;
  factors.rows.clear();
  for (std::int64_t i = 1; i <= parser.variables.count(); ++i) {
    const VARIABLE& variable = parser.variables.row(i);
    factors.rows.push_back({.name = variable.name,
                            .variable = i,
                            .is_factor = variable.is_factor(),
                            .levels = variable.is_factor() ? variable.levels : 1});
  }
  const COMMUNICATION& words = parser.communication;
  factors.rows.push_back({.name = words.VARIABLE_NAME_MU, .reserved = Reserved::mu, .levels = 1});
  parser.mu = factors.count();
  factors.rows.push_back({.name = words.VARIABLE_NAME_UNITS, .reserved = Reserved::units, .is_factor = true});
  parser.units = factors.count();
  std::int64_t traits = 0;
  for (const JsonNode* response : responses) traits += count_traits(*response);
  parser.info.stacked = stacked_traits(parser.request, traits);
  traits = std::max(traits, parser.info.stacked);
  if (traits > 1) {
    factors.rows.push_back({.name = words.VARIABLE_NAME_TRAIT, .reserved = Reserved::trait, .is_factor = true, .levels = traits});
    parser.info.trait = factors.count();
  }
  if (holds_term(model, words.VARIABLE_NAME_MV)) {
    factors.rows.push_back({.name = words.VARIABLE_NAME_MV, .reserved = Reserved::mv, .is_factor = true});
    parser.mv = factors.count();
  }
}

/// L_ADD_RESPONSE: the term of one response, without equations.
///   row   of the factor table, 0 where there is none of that name
void L_ADD_RESPONSE(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::int64_t row, const std::string& name)
{
  const Frame here{eh, __func__};
  if (row == 0 || parser.factors.row(row).variable == 0) {
    eh.error(text("the response variable, ", name, ", is unknown"));
    return;
  }
  std::vector<std::int64_t>& seen = parser.info.responses;
  if (std::find(seen.begin(), seen.end(), row) != seen.end()) {
    eh.error(text("the response variable, ", name, ", was supplied more than once"));
    return;
  }
  seen.push_back(row);
  if (parser.info.trait > 0 && parser.info.stacked == 0) parser.factors.row(parser.info.trait).labels.push_back(name);
  TERM_ROW term{.code = static_cast<std::int32_t>(row), .block = Block::response, .name = name};
  parser.terms.rows.push_back(std::move(term));
}

/// L_READ_RESPONSE: the response variables, and at() as a response of 0 and 1, as terms without equations.
void L_READ_RESPONSE(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::vector<const JsonNode*>& nodes)
{
  const Frame here{eh, __func__};
  for (const JsonNode* node : nodes) {
    const JsonNode* function = node->find("function");
    if (function != nullptr && supplied_value(*function, "lvls") == nullptr) {
      const std::string name = GET_FACNAME_FROM_JPTR(eh, parser.communication, *node);
      eh.error(text("Unrecognised argument in ", name));
      eh.continuation("the levels that it is at have to be named");
    } else if (function != nullptr) {
      for (const COMPONENT& level : ADD_CONDITION_FROM_JPTR(eh, parser, *node, Block::response)) {
        L_ADD_RESPONSE(eh, parser, level.row, level.name);
        if (eh.terminate()) return;
      }
    } else {
      const std::string name = GET_FACNAME_FROM_JPTR(eh, parser.communication, *node);
      const std::int64_t row = parser.variables.find(name);
      if (row > 0 && parser.variables.row(row).is_factor() && !parser.data_read)
        eh.note("the response variable is typically a variate.");
      L_ADD_RESPONSE(eh, parser, row, name);
    }
    if (eh.terminate()) return;
  }
  const auto count = std::ssize(parser.info.responses);
  const std::int64_t distributions = parser.info.family != nullptr ? parser.info.family->size() : 1;
  if (distributions > 1 && distributions != count)
    eh.error(text(count, " response variables were supplied, but ", distributions, " distributions"));
}

/// L_CHECK_FAMILY: whether a family and its link are among those that there are; gives its name.
std::string L_CHECK_FAMILY(ERROR_HANDLER& eh, const JsonNode& entry)
{
  const Frame here{eh, __func__};
  const JsonNode* function = entry.find("function");
  if (function == nullptr) {
    REPORT_JSON_ERROR(eh, entry, "function");
    return {};
  }
  std::string name(function_name(*function));
  if (!among(name, families)) {
    eh.error(text(name, " is not a recogised family name"));  // sic
    eh.continuation(text("valid values are ", join({std::begin(families), std::end(families)}, ", ")));
    return {};
  }
  const JsonNode* link = supplied_value(*function, "link");
  if (link != nullptr && !(link->is(JsonType::string) && among(link->text(), links))) {
    REPORT_JSON_ERROR(eh, *link,
                      {"identity", "logit", "probit", "cloglog", "log", "sqrt", "inverse", "LNR", "INR"});
  }
  return name;
}

/// L_CHECK_RESPONSE_LEVELS: a response that is a factor has no more levels than its family admits.
void L_CHECK_RESPONSE_LEVELS(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const std::string& family, std::size_t first,
                             std::size_t last)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t of_binomial = 2;
  for (std::size_t t = first; t < last && t < parser.info.responses.size(); ++t) {
    const FACTOR_ROW& response = parser.factors.row(parser.info.responses[t]);
    if (family != "binomial" || !response.is_factor || response.levels <= of_binomial) continue;
    eh.error(text(response.shown(), " has too many levels."));
    return;
  }
}

/// L_READ_FAMILY: lets the normal family with the identity link pass.
void L_READ_FAMILY(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const JsonNode& model)
{
  const Frame here{eh, __func__};
  if (parser.info.family == nullptr) return;
  const auto& entries = parser.info.family->children();
  for (std::size_t k = 0; k < entries.size(); ++k) {
    const std::string name = L_CHECK_FAMILY(eh, *entries[k]);
    if (eh.terminate()) return;
    // One family serves all responses, several serve one each.
    L_CHECK_RESPONSE_LEVELS(eh, parser, name, entries.size() == 1 ? 0 : k, entries.size() == 1 ? parser.info.responses.size() : k + 1);
    if (eh.terminate()) return;
    const JsonNode& function = *entries[k]->find("function");
    const JsonNode* link = supplied_value(function, "link");
    if (name != "gaussian" || (link != nullptr && !link->is_text("identity"))) {
      if (model.find("residual") != nullptr) eh.warning("Ensure residual variance is fitted for normal traits in GLM models.");
      eh.not_implemented(text("the family ", name, link != nullptr ? " with the link " + link->text() : "",
                              " is not implemented yet"));
      return;
    }
    for (const auto& argument : function.find("arguments")->children()) {
      const JsonNode* key = argument->find("name");
      if (key == nullptr || key->is_text("link")) continue;
      eh.not_implemented(
          text("the argument ", key->text(), " of the family gaussian is not implemented yet"));
      return;
    }
  }
}

/// L_READ_WEIGHTS: the variate that holds the weights.
void L_READ_WEIGHTS(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& model)
{
  const Frame here{eh, __func__};
  const JsonNode* weights = model.find("weights");
  if (weights == nullptr || weights->is(JsonType::null)) return;
  if (plain_name(*weights).empty()) {
    REPORT_JSON_ERROR(eh, *weights, {"the name of a variable"});
    return;
  }
  const std::string name(plain_name(*weights));
  parser.info.weights = parser.variables.find(name);
  if (parser.info.weights == 0) {
    eh.error(text("the weight variable, ", name, ", is unknown"));
  } else if (parser.variables.row(parser.info.weights).is_factor()) {
    eh.error(text("the weight variable, ", name, ", is not a variate"));
  }
}

/// L_READ_OFFSET: the variate that is added to the linear predictor.
void L_READ_OFFSET(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& model)
{
  const Frame here{eh, __func__};
  const JsonNode* offset = model.find("offset");
  if (offset == nullptr || offset->is(JsonType::null)) return;
  const JsonNode* function = offset->find("function");
  const JsonNode* value = function == nullptr ? nullptr : supplied_value(*function, "variable_name");
  if (value == nullptr || plain_name(*value).empty()) {
    eh.error(text("Unrecognised argument in ", GET_FACNAME_FROM_JPTR(eh, parser.communication, *offset)));
    return;
  }
  const std::string name(plain_name(*value));
  parser.info.offset = parser.variables.find(name);
  if (parser.info.offset == 0) {
    eh.error(text("Variable ", name, " not yet defined"));
  } else if (parser.variables.row(parser.info.offset).is_factor()) {
    eh.error(text("Unrecognised argument in ", GET_FACNAME_FROM_JPTR(eh, parser.communication, *offset)));
    eh.continuation(text(name, " is not a variate"));
  }
}

/// L_READ_TERMS: the parts with equations, in the order of the term table, then the residual sections and mv.
void L_READ_TERMS(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& model)
{
  const Frame here{eh, __func__};
  struct Part {
    std::string_view name;
    Block block;
  };
  constexpr Part parts[] = {{"fixed", Block::fixed}, {"random", Block::random}, {"sparse", Block::sparse}};
  bool present = false;
  for (const Part& part : parts) present = present || model.find(part.name) != nullptr;
  if (!present) {
    eh.error("at least one fixed or random is required");
    return;
  }
  for (const Part& part : parts) {
    const JsonNode* node = model.find(part.name);
    if (node != nullptr) PARSE_MODEL_FORMULA_FROM_JPTR(eh, parser, *node, part.block);
    if (eh.terminate()) return;
  }
  parser.info.residual = model.find("residual");
  if (parser.info.residual != nullptr && parser.info.residual->is(JsonType::null)) parser.info.residual = nullptr;
  if (parser.info.residual != nullptr) PARSE_RESIDUAL_FROM_JPTR(eh, parser, *parser.info.residual);
  if (eh.terminate()) return;
  mark_joining_terms(parser.factors, parser.terms);
  if (!parser.info.has_mv) return;
  parser.terms.rows.push_back({.code = static_cast<std::int32_t>(parser.mv),
                               .block = Block::sparse,
                               .name = "mv_estimates",
                               .is_mv = true});
}

/// L_PARSE: one pass over the model; the second one knows all levels.
void L_PARSE(ERROR_HANDLER& eh, MODEL_PARSER& parser)
{
  const Frame here{eh, __func__};
  parser.terms = {};
  parser.info = {};
  const JsonNode* model = parser.request.find("model");
  if (model == nullptr || !model->is(JsonType::object)) {
    REPORT_JSON_ERROR(eh, parser.request, "model");
    return;
  }
  parser.info.family = model->find("family");
  if (parser.info.family != nullptr && !parser.info.family->is(JsonType::array))
    parser.info.family = nullptr;  // absent, or null

  const std::vector<const JsonNode*> responses = L_FIND_RESPONSES(eh, *model);
  if (eh.terminate()) return;
  L_SET_FACTORS(eh, parser, *model, responses);
  if (eh.terminate()) return;
  L_READ_RESPONSE(eh, parser, responses);
  if (eh.terminate()) return;
  L_READ_FAMILY(eh, parser, *model);
  if (eh.terminate()) return;
  L_READ_WEIGHTS(eh, parser, *model);
  if (eh.terminate()) return;
  L_READ_OFFSET(eh, parser, *model);
  if (eh.terminate()) return;
  L_READ_TERMS(eh, parser, *model);
}

}  // namespace

void NEW_PARSE_LINEAR_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& request,
                            const VARIABLE_TABLE& variables, FACTOR_TABLE& factors, TERM_TABLE& terms,
                            MODEL_INFO& info)
{
  const Frame here{eh, __func__};
  MODEL_PARSER parser{.communication = communication,
                      .request = request,
                      .variables = variables,
                      .factors = factors,
                      .terms = terms,
                      .info = info};
  L_PARSE(eh, parser);
}

void COMPLETE_LINEAR_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& request,
                           const VARIABLE_TABLE& variables, FACTOR_TABLE& factors, TERM_TABLE& terms,
                           MODEL_INFO& info)
{
  const Frame here{eh, __func__};
  if (!info.waits_for_levels) return;
  MODEL_PARSER parser{.communication = communication,
                      .request = request,
                      .variables = variables,
                      .factors = factors,
                      .terms = terms,
                      .info = info,
                      .data_read = true};
  L_PARSE(eh, parser);
}

}  // namespace tolvan
