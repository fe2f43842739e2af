#include "relmat/match_levels.h"

#include <algorithm>
#include <utility>

#include "base/memory.h"
#include "base/text.h"

namespace tolvan {
namespace {

/// L_CHECK_LABELS: the levels of a variable must be the rows of the matrix.
void L_CHECK_LABELS(ERROR_HANDLER& eh, const AINV_MTX& matrix, const VARIABLE& variable,
                    const FACTOR_ROW& factor)
{
  const Frame here{eh, __func__};
  const std::int64_t rows = matrix.order - matrix.lagrangian;
  const std::string sizes =
      text("the matrix ", matrix.name, " has ", rows, " rows, ", variable.name, " has ", variable.levels, " levels");
  if (variable.levels > rows) {
    eh.error(text("GRM structure is smaller than model factor for term ", factor.shown()));
    return eh.continuation(sizes);
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
    eh.continuation(sizes);
  }
}

/// The matrices that factors of a variable name, one after the other, up to a fault.
template <class Work>
void each_named_matrix(ERROR_HANDLER& eh, const AINV_MTXS& store, const FACTOR_TABLE& factors, Work&& work)
{
  for (const FACTOR_ROW& factor : factors.rows) {
    if (factor.matrix.empty() || factor.variable == 0) continue;
    if (const AINV_MTX* matrix = store.find(factor.matrix)) work(factor, *matrix);
    if (eh.terminate()) return;
  }
}

/// Whether levels are declared as the numbers 1 to n: those are the rows of a matrix.
bool counts_rows(const VARIABLE& variable)
{
  return variable.type == FieldType::integer_factor_1_to_n;
}

}  // namespace

const AINV_MTX* matrix_of(const AINV_MTXS& store, const FACTOR_ROW& factor)
{
  if (!factor.matrix.empty()) return store.find(factor.matrix);
  if (factor.structure != "nrm") return nullptr;
  const auto found = std::find_if(store.matrices.begin(), store.matrices.end(),
                                  [](const AINV_MTX& m) { return m.pedigree; });
  return found == store.matrices.end() ? nullptr : &*found;
}

void L_TAKE_LEVELS(ERROR_HANDLER& eh, const std::vector<std::string>& labels, VARIABLE& variable)
{
  const Frame here{eh, __func__};
  LEVEL_TABLE levels;
  const bool room = attempt([&] {
    for (const std::string& each : labels) levels.find_or_add(each);
  });
  if (!room) return eh.out_of_memory();
  variable.labels = std::move(levels);
  variable.labels_fixed = true;
  variable.declared_levels = variable.levels = std::ssize(labels);
  variable.is_pedigree_factor = true;
}

void TAKE_PEDIGREE_LEVELS(ERROR_HANDLER& eh, const std::vector<std::string>& labels,
                          VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  for (VARIABLE& variable : variables.rows) {
    if (!variable.is_pedigree_factor) continue;
    if (!variable.is_factor()) variable.type = FieldType::string_factor;
    L_TAKE_LEVELS(eh, labels, variable);
    if (eh.terminate()) return;
  }
}

void NAME_PEDIGREE_FACTORS(ERROR_HANDLER& eh, const AINV_MTXS& store, const FACTOR_TABLE& factors,
                           VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  each_named_matrix(eh, store, factors, [&](const FACTOR_ROW& factor, const AINV_MTX& matrix) {
    VARIABLE& variable = variables.row(factor.variable);
    // Levels that are declared are rows of the pedigree, or must agree with its identities.
    if (matrix.pedigree_of.empty() || variable.labels_fixed || counts_rows(variable) || !variable.is_factor()) return;
    L_TAKE_LEVELS(eh, matrix.labels, variable);
  });
}

void NAME_MARKER_FACTORS(ERROR_HANDLER& eh, const AINV_MTXS& store, const FACTOR_TABLE& factors,
                         VARIABLE_TABLE& variables)
{
  const Frame here{eh, __func__};
  each_named_matrix(eh, store, factors, [&](const FACTOR_ROW& factor, const AINV_MTX& matrix) {
    if (!matrix.markers || matrix.labels.empty() || !variables.row(factor.variable).is_factor()) return;
    const std::string& name = variables.row(factor.variable).name;
    const std::int64_t owner = level_owners(variables)[static_cast<std::size_t>(factor.variable - 1)];
    VARIABLE& variable = variables.row(owner);
    if ((counts_rows(variable) && !variable.labels_fixed) || variable.recode_labels == matrix.labels) return;
    if (!variable.recode_labels.empty()) {
      eh.error(text(name, " is already flagged as needing recoding, and the levels are not the same"));
      return;
    }
    if (!attempt([&] { variable.recode_labels = matrix.labels; })) return eh.out_of_memory();
    variable.recode_because = factor.shown();
    eh.note(text("class names for factor \"", name, "\" are initialized from the .grr file"));
  });
}

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
