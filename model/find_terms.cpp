#include "model/find_terms.h"

#include <algorithm>
#include <set>

#include "base/text.h"
#include "model/formula_text.h"
#include "model/request.h"
#include "model/request_nodes.h"

namespace tolvan {

namespace {

/// The components of a name in sorted order.
std::vector<std::string> components_of(const std::string& name, char interaction)
{
  std::vector<std::string> parts = split_protected(name, interaction);
  std::sort(parts.begin(), parts.end());
  return parts;
}

/// L_FIND_TERM: adds the rows of the terms of one name; false if there is none.
bool L_FIND_TERM(ERROR_HANDLER& eh, const COMMUNICATION& communication, const TERM_TABLE& terms, const std::string& name,
                 std::set<std::int64_t>& rows)
{
  const Frame here{eh, __func__};
  const SYMBOLS symbols(communication);
  bool found = false;
  const auto add_where = [&](auto fits) {
    for (std::size_t t = 0; t < terms.rows.size(); ++t) {
      const TERM_ROW& term = terms.rows[t];
      if (!has_equations(term) || term.dropped || !fits(term)) continue;
      rows.insert(static_cast<std::int64_t>(t));
      found = true;
    }
  };
  add_where([&](const TERM_ROW& term) { return term.name == name || (term.is_mv && name == communication.VARIABLE_NAME_MV); });
  if (found) return true;
  add_where([&](const TERM_ROW& term) {
    return term.initial_values != nullptr && GET_FACNAME_FROM_JPTR(eh, communication, *term.initial_values) == name;
  });
  if (found) return true;
  const std::vector<std::string> asked = components_of(name, symbols.interaction);
  if (asked.size() > 1)
    add_where([&](const TERM_ROW& term) { return components_of(term.name, symbols.interaction) == asked; });
  return found;
}

}  // namespace

std::int64_t GET_FACTOR_ID_FROM_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication, const FACTOR_TABLE& factors,
                                     const JsonNode& node)
{
  const Frame here{eh, __func__};
  std::int64_t row = 0;
  std::string name;
  if (node.is(JsonType::integer)) {
    row = node.integer() >= 1 && node.integer() <= factors.count() ? node.integer() : 0;
    name = text(node.integer());
  } else if (node.is(JsonType::string) || node.is(JsonType::object)) {
    name = GET_FACNAME_FROM_JPTR(eh, communication, node);
    for (std::int64_t i = factors.count(); i >= 1; --i)
      if (!factors.row(i).copy && (factors.row(i).name == name || factors.row(i).shown() == name)) row = i;
  } else {
    eh.error("unable to read value");
    return 0;
  }
  if (row == 0) eh.error(text("unable to find a factor called ", name));
  return row;
}

std::vector<std::int64_t> GET_TERM_IDS_FROM_FORMULA_JPTR(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                                         const TERM_TABLE& terms, const JsonNode& node)
{
  const Frame here{eh, __func__};
  const JsonNode* list = node.is(JsonType::object) ? node.find("terms") : &node;
  if (list == nullptr || !list->is(JsonType::array) || (list->packed() && list->size() > 0)) {
    eh.error("invalid term supplied");
    return {};
  }
  std::set<std::int64_t> rows;
  for (const auto& term : list->children()) {
    if (!term->is(JsonType::string) && !term->is(JsonType::object)) {
      eh.error("invalid term supplied");
      return {};
    }
    const JsonNode* given = term->find("user_facing_factor_name");
    const std::string name = given != nullptr && given->is(JsonType::string) ? given->text() : GET_FACNAME_FROM_JPTR(eh, communication, *term);
    if (!L_FIND_TERM(eh, communication, terms, name, rows)) {
      eh.error(text(name, " is unknown"));
      return {};
    }
  }
  return {rows.begin(), rows.end()};
}

}  // namespace tolvan
