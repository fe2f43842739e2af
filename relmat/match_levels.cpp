#include "relmat/match_levels.h"

#include <algorithm>

#include "base/text.h"

namespace tolvan {
namespace {

/// The matrix of a factor row, null for none: by its name, or the pedigree's.
const AINV_MTX* matrix_of(const AINV_MTXS& store, const FACTOR_ROW& factor)
{
  if (!factor.matrix.empty()) return store.find(factor.matrix);
  if (factor.structure != "nrm") return nullptr;
  const auto found = std::find_if(store.matrices.begin(), store.matrices.end(),
                                  [](const AINV_MTX& m) { return m.pedigree; });
  return found == store.matrices.end() ? nullptr : &*found;
}

/// L_CHECK_LABELS: the levels of a variable must be the rows of the matrix.
void L_CHECK_LABELS(ERROR_HANDLER& eh, const AINV_MTX& matrix, const VARIABLE& variable,
                    const FACTOR_ROW& factor)
{
  const Frame here{eh, __func__};
  const std::int64_t rows = matrix.order - matrix.lagrangian;
  if (variable.levels > rows) {
    eh.error(text("GRM structure is smaller than model factor for term ", factor.shown()));
    eh.continuation(text("the matrix ", matrix.name, " has ", rows, " rows, ", variable.name, " has ",
                         variable.levels, " levels"));
    return;
  }
  const std::int64_t labels = matrix.labels.empty() ? 0 : variable.labels.size();
  for (std::int64_t k = 1; k <= labels; ++k) {
    const std::string& label = matrix.labels[static_cast<std::size_t>(k - 1)];
    if (variable.labels.label(k) == label) continue;
    eh.error(text("the levels of ", variable.name, " do not follow the labels of the matrix ", matrix.name));
    eh.continuation(text("level ", k, " is ", variable.labels.label(k), ", row ", k, " is ", label));
    return;
  }
  if (variable.levels < rows && labels == 0) {
    eh.warning(text("GRM structure seems larger than model factor for term ", factor.shown()));
    eh.continuation(text("the matrix ", matrix.name, " has ", rows, " rows, ", variable.name, " has ",
                         variable.levels, " levels"));
  }
}

}  // namespace

void MATCH_MATRIX_LEVELS(ERROR_HANDLER& eh, const AINV_MTXS& store, const VARIABLE_TABLE& variables,
                         FACTOR_TABLE& factors)
{
  const Frame here{eh, __func__};
  for (FACTOR_ROW& factor : factors.rows) {
    const AINV_MTX* matrix = matrix_of(store, factor);
    if (matrix == nullptr || !factor.is_factor) continue;
    if (factor.variable > 0) L_CHECK_LABELS(eh, *matrix, variables.row(factor.variable), factor);
    if (eh.terminate()) return;
    factor.matrix_rows = matrix->order - matrix->lagrangian;
    factor.added_rows = factor.structure == "ide" ? 0 : matrix->lagrangian;
  }
}

}  // namespace tolvan
