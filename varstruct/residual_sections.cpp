// The residual part of the model.  Routine: NEW_GETRCOV.
#include "base/text.h"
#include "model/request.h"
#include "varstruct/structures.h"

namespace tolvan {

namespace {

/// The one term of a part, null when there are none or several; a part is a term, or an object with `terms`.
const JsonNode* only_term(const JsonNode& part)
{
  const JsonNode* terms = part.is(JsonType::object) ? part.find("terms") : nullptr;
  if (terms == nullptr) return &part;
  if (!terms->is(JsonType::array)) return terms;
  return terms->children().size() == 1 ? terms->children().front().get() : nullptr;
}

bool is_units(const JsonNode& term, const std::string& units)
{
  if (term.is_text(units)) return true;
  const JsonNode* name = term.is(JsonType::object) ? term.find("term_name") : nullptr;
  return name != nullptr && name->is_text(units);
}

}  // namespace

void NEW_GETRCOV(ERROR_HANDLER& eh, const COMMUNICATION& communication, const MODEL_INFO& info)
{
  const Frame here{eh, __func__};
  if (info.residual == nullptr || info.residual->is(JsonType::null)) return;
  const JsonNode* term = only_term(*info.residual);
  if (term == nullptr) {
    eh.not_implemented("a residual of several sections is not implemented");
    return;
  }
  if (is_units(*term, communication.VARIABLE_NAME_UNITS)) return;
  const std::string name = GET_FACNAME_FROM_JPTR(eh, communication, *term);
  if (eh.terminate()) return;
  eh.not_implemented(text("the residual ", name, " is not implemented"));
}

}  // namespace tolvan
