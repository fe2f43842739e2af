// The text of a term node as a factor name: GET_FACNAME_FROM_JPTR.
#include "base/text.h"
#include "model/expand_model.h"
#include "model/formula_nodes.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// The symbols that a name is written with, and how deep the node may still go.
struct NameWriter {
  const COMMUNICATION& symbols;
  bool all_names = false;  // every argument that has a name is written with it
  bool as_shown = false;   // calls that have a name for output are written by it
  std::string out = {};

  void term(const JsonNode& node, std::int64_t depth);
  void list(const JsonNode& nodes, std::string_view separator, std::int64_t depth);
  void call(const JsonNode& function, std::int64_t depth);
  void value(const JsonNode& node, std::int64_t depth);
};

void NameWriter::list(const JsonNode& nodes, std::string_view separator, std::int64_t depth)
{
  bool first = true;
  for (const auto& node : nodes.children()) {
    if (!first) out += separator;
    first = false;
    term(*node, depth);
  }
}

void NameWriter::term(const JsonNode& node, std::int64_t depth)
{
  const JsonNode* shown = as_shown ? node.find("user_facing_factor_name") : nullptr;
  if (depth > 2 * deepest_call) {  // refused before anyone sees this name
    out += "...";
  } else if (shown != nullptr && shown->is(JsonType::string)) {
    out += shown->text();
  } else if (const JsonNode* factors = node.find("interaction")) {
    list(*factors, symbols.INTERACTION_SYMBOL, depth + 1);
  } else if (const JsonNode* function = node.find("function")) {
    call(*function, depth + 1);
  } else if (const JsonNode* linked = node.find("linked")) {
    list(*linked, symbols.ADD_TERM_SYMBOL, depth + 1);
  } else {
    out += plain_name(node);
  }
}

/// Arguments left to their defaults and those that names leave out are not written; what then no longer
/// stands in its declared place is written with its name.
void NameWriter::call(const JsonNode& function, std::int64_t depth)
{
  out += function_name(function);
  out += symbols.FUN_OPEN_BRACE;
  bool gap = false, first = true;
  if (const JsonNode* arguments = function.find("arguments")) {
    for (const auto& argument : arguments->children()) {
      const bool framed = argument->is(JsonType::object) && (argument->find("value") != nullptr || argument->find("name") != nullptr);
      const JsonNode* v = framed ? argument->find("value") : argument.get();  // a caller may write the bare value
      if (v == nullptr || !is_supplied(*argument) || has_flag(*argument, "drop_from_facname")) {
        gap = true;
        continue;
      }
      if (!first) out += symbols.FUN_ARG_SEP;
      first = false;
      if (const JsonNode* name = argument->find("name"); (gap || all_names) && name != nullptr)
        append(out, text(name->text(), "="));
      value(*v, depth);
    }
  }
  out += symbols.FUN_CLOSE_BRACE;
}

void NameWriter::value(const JsonNode& node, std::int64_t depth)
{
  switch (node.type()) {
    case JsonType::string:
      out += node.text();
      break;
    case JsonType::integer:
      append(out, node.integer());
      break;
    case JsonType::real:
      append(out, node.number());
      break;
    case JsonType::logical:
      out += node.logical() ? "true" : "false";
      break;
    case JsonType::null:
      break;
    case JsonType::array: {
      out += symbols.VEC_OPEN_BRACE;
      for (std::int64_t k = 0; k < node.size(); ++k) {
        if (k > 0) out += symbols.VEC_VAL_SEP;
        if (!node.packed()) {
          if (depth <= 2 * deepest_call) value(*node.children()[static_cast<std::size_t>(k)], depth + 1);
        } else if (node.is_integer(k)) {
          append(out, node.integer(k));
        } else {
          append(out, node.number(k));
        }
      }
      out += symbols.VEC_CLOSE_BRACE;
      break;
    }
    case JsonType::object:
      if (const JsonNode* terms = node.find("terms")) {
        list(*terms, symbols.ADD_TERM_SYMBOL, depth + 1);
      } else {
        term(node, depth);
      }
      break;
  }
}

}  // namespace

std::string GET_FACNAME_FROM_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& term)
{
  const Frame here{eh, __func__};
  NameWriter name{.symbols = communication};
  name.term(term, 0);
  return std::move(name.out);
}

std::string user_facing_name(const COMMUNICATION& communication, const JsonNode& term)
{
  NameWriter name{.symbols = communication, .as_shown = true};
  name.term(term, 0);
  return std::move(name.out);
}

std::string text_as_written(const COMMUNICATION& communication, const JsonNode& term)
{
  NameWriter name{.symbols = communication, .all_names = true};
  name.term(term, 0);
  return std::move(name.out);
}

}  // namespace tolvan
