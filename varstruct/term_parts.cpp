// The components of a term that say something about their part of its structure.  Routine: TERM_PARTS.
#include "model/parse_terms.h"
#include "model/request_nodes.h"
#include "varstruct/initial_values.h"

namespace tolvan {

namespace {

/// The node that holds the product: the term itself, or the structure that linked terms share.
const JsonNode& product_of(const JsonNode& node)
{
  const JsonNode* structure = node.find("structure");
  return structure != nullptr && structure->size() == 1 ? *structure->children().front() : node;
}

bool is_condition(const JsonNode& element)
{
  const JsonNode* function = element.find("function");
  if (function == nullptr) return false;
  const std::string_view name = function_name(*function);
  return name == "at" || name == "sat";
}

}  // namespace

void TERM_PARTS(ERROR_HANDLER& eh, const TERM_ROW& term, std::vector<TERM_PART>& parts)
{
  const Frame here{eh, __func__};
  parts.clear();
  if (term.initial_values == nullptr) return;
  const JsonNode& product = product_of(*term.initial_values);
  std::vector<const JsonNode*> elements;
  if (const JsonNode* interaction = product.find("interaction")) {
    FLATTEN_INTERACTION(eh, *interaction, elements);
    if (eh.terminate()) return;
  } else if (&product != term.initial_values) {
    elements.push_back(&product);
  }
  const auto [from, to] = term.structure();
  // The condition of a residual section is none of its components.
  const bool apart = std::ssize(elements) > to - from + 1;
  std::int64_t row = from;
  for (const JsonNode* element : elements) {
    if (apart && is_condition(*element)) continue;
    IVALUE_DATA data;
    SAVE_INITIAL_VALUES(eh, *element, data);
    if (eh.terminate()) return;
    if (!data.empty()) parts.push_back({.factor = row <= to ? row : 0, .data = std::move(data)});
    ++row;
  }
}

}  // namespace tolvan
