// Levels with data for which a known matrix has no variance.
#include "estimation/null_levels.h"

#include "base/text.h"
#include "estimation/bound_effects.h"

namespace tolvan {
namespace {

/// Whether some equation of a level of component c has data.
bool has_data(const MIXED_EQUATIONS& q, std::int64_t first, const PRODUCT_BLOCK& block, std::int64_t levels, std::int64_t level)
{
  for (std::int64_t o = 0; o < block.outer; ++o) {
    for (std::int64_t i = 0; i < block.inner; ++i) {
      const auto p = static_cast<std::size_t>(q.position_of(first + (o * levels + level) * block.inner + i));
      if (q.columns.start[p + 1] > q.columns.start[p]) return true;
    }
  }
  return false;
}

}  // namespace

void warn_of_null_levels(ERROR_HANDLER& eh, const TERM_TABLE& terms, const VARIANCE_MODEL& model, const FORMED& formed,
                         const MIXED_EQUATIONS& q)
{
  for (std::size_t t = 0; t < model.terms.size(); ++t) {
    const TERM_STRUCTURE& structure = model.terms[t];
    if (structure.dropped) continue;
    const COMPONENTS& components = formed.terms[t].components;
    for (std::size_t c = 0; c < components.size(); ++c) {
      const AINV_MTX* matrix = model.rows[static_cast<std::size_t>(structure.first_row) + c].matrix;
      if (matrix == nullptr || matrix->pedigree || components[c]->counted() == components[c]->inverse().n) continue;
      const std::vector<double> diagonal = diagonal_of(components[c]->inverse());
      const auto rows = static_cast<std::int64_t>(diagonal.size());
      const PRODUCT_BLOCK block = block_of(components, c);
      const std::int64_t first = first_equation(terms, structure);
      std::int64_t levels = 0;
      std::int64_t first_level = 0;
      for (std::int64_t level = 0; level < rows; ++level) {
        if (diagonal[static_cast<std::size_t>(level)] != 0.0 || !has_data(q, first, block, rows, level)) continue;
        if (levels++ == 0) first_level = level + 1;
      }
      if (levels == 0) continue;
      eh.warning(" Unexpected data when GRM diagonal element is ZERO");
      eh.continuation(text(levels, " level(s) of ", terms.rows[static_cast<std::size_t>(structure.term)].name, ", the first in row ",
                           first_level, ", are fitted as fixed effects"));
    }
  }
}

}  // namespace tolvan
