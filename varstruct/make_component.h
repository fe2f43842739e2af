// From a row of the parameter table to the object that forms its matrix.  Plain functions.
#pragma once

#include <cstdint>
#include <memory>

#include "varstruct/component_matrix.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The form of a row: its model alone, with one variance, with one a level.  A row of one level with a
/// variance is of the first kind.
enum class VarianceForm { plain, one_variance, level_variances };

/// How the parameters of a row divide: those of its model, then its variances.
struct ROW_PARAMETERS {
  bool fit = false;      // the count agrees with the model, its order and the number of levels
  std::int64_t own = 0;  // of the model
  VarianceForm form = VarianceForm::plain;
};
ROW_PARAMETERS row_parameters(const STRUCTURE_ROW& row);

/// The component that forms a row, not yet formed; null when the model has no class or the row's count does
/// not fit it. The object keeps no pointer to the row or the model.
std::unique_ptr<COMPONENT_MATRIX> make_component(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

}  // namespace tolvan
