// Structures of terms that no record has a design for.  Routine: FIX_NULL_STRUCTURES.
#include <algorithm>

#include "varstruct/followers.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

/// Whether any record has one of so many equations.
bool any_met(const std::vector<bool>& met, std::int64_t first, std::int64_t equations)
{
  const std::int64_t end = std::min(first + equations, std::ssize(met));
  for (std::int64_t e = first; e < end; ++e)
    if (met[static_cast<std::size_t>(e)]) return true;
  return false;
}

}  // namespace

void FIX_NULL_STRUCTURES(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const std::vector<bool> met = equations_met(design, terms.equations);
  // A parameter goes on where a structure that the data speak of uses it, too, as its own or through a follower.
  std::vector<bool> of_null(model.parameters.size(), false), needed(model.parameters.size(), false);
  for (const TERM_STRUCTURE& structure : model.terms) {
    const std::int64_t first = terms.rows[static_cast<std::size_t>(structure.term)].first;
    const bool null = !any_met(met, first, structure_equations(terms, structure.term));
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(r)];
      const auto mark = [&](std::int64_t p) { (null ? of_null : needed)[static_cast<std::size_t>(p)] = true; };
      for (std::int64_t p = row.first; p < row.first + row.parameters; ++p) mark(p);
      if (row.scale >= 0) mark(row.scale);
    }
  }
  for (std::size_t p = 0; p < model.parameters.size(); ++p) {
    if (of_null[p] || !follows(model.parameters[p])) continue;
    for (const PARAMETER_SHARE& share : made_of(model, static_cast<std::int64_t>(p))) needed[static_cast<std::size_t>(share.of)] = true;
  }
  for (std::size_t p = 0; p < model.parameters.size(); ++p) {
    Constraint& constraint = model.parameters[p].constraint;
    if (of_null[p] && !needed[p] && is_free(constraint)) constraint = Constraint::F;
  }
}

}  // namespace tolvan
