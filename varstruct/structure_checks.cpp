// The last check of the parameter table before the fit.  Routine: STRUCTURECHECK.
#include "base/text.h"
#include "varstruct/starting_values.h"

namespace tolvan {

namespace {

/// L_CHECK_TERM: checks one random term: its stretch of the vector, its size, and its count of scales.
void L_CHECK_TERM(ERROR_HANDLER& eh, const TERM_ROW& term, const TERM_STRUCTURE& structure,
                  const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t size = 1, scales = 0, to_estimate = 0;
  for (std::int64_t r = 0; r < structure.rows; ++r) {
    const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row + r)];
    if (row.first < 0 || row.parameters < 0 || row.first + row.parameters > model.count()) {
      eh.internal(text("Overparamaterized variance model: ", term.name));  // sic
      return;
    }
    size *= row.size;
    if (row.scale < 0) continue;
    ++scales;
    if (is_free(model.parameters[static_cast<std::size_t>(row.scale)].constraint)) ++to_estimate;
  }
  if (size != term.equations) {
    eh.internal(text("unable to find which block of struc values are associated with ", term.name));
    return;
  }
  // None at all is a term whose variance is that of the residual; two can not be told apart.
  if (scales > 0 && to_estimate <= 1) return;
  eh.warning(
      text("G structure for ", term.name, " has ", to_estimate, " variance scale parameters to estimate"));
  eh.continuation(
      "normally (only) one structure term includes a variance, maybe you should change the parameterisation");
}

}  // namespace

void STRUCTURECHECK(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design,
                    const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t owned = 0;
  for (const STRUCTURE_ROW& row : model.rows) owned += row.parameters;
  for (const STRUCTURE_ROW& row : model.residual) owned += row.parameters;
  if (owned != model.count()) {
    eh.internal(text("Overparamaterized variance model: ", owned, " parameters in the structures, ",
                     model.count(), " in the vector"));
    return;
  }
  for (const TERM_STRUCTURE& structure : model.terms) {
    L_CHECK_TERM(eh, terms.rows[static_cast<std::size_t>(structure.term)], structure, model);
    if (eh.terminate()) return;
  }

  std::int64_t records = 0;
  for (const STRUCTURE_ROW& row : model.residual) records += row.size;
  if (records == design.rows()) return;
  eh.error(text("R structure for ", records,
                " records does not match the data, probably due to an imbalance caused by the removal of "
                "missing values"));
  eh.continuation(text("number of sections: ", model.residual.size(), ", total size of sections: ", records,
                       ", number of rows in design matrix: ", design.rows()));
  eh.continuation("the model is invalid");
}

}  // namespace tolvan
