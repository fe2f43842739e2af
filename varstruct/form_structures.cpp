// Forming the structures of one evaluation.  Routine: K4MVSF.
#include "varstruct/form_structures.h"

#include <cmath>

#include "base/text.h"

namespace tolvan {

namespace {

constexpr std::int64_t not_a_number = 999;
constexpr std::int64_t residual_is_zero = 280;
constexpr std::int64_t residual_is_negative = 2130;
constexpr std::int64_t structure_failed = 1000;  // plus the model's code

/// R = g I, or I for a row without a variance of its own:
///     R^-1 = I/g,   log|R| = n ln|g|,   R^-1 (dR/dg) R^-1 = I/g^2,   d log|R| / dg = n/g.
/// A negative g is legal: an unbounded component may be one, as long as V stays positive definite.
Formed form_identity(const STRUCTURE_ROW& row, const double* g, FORMED_ROW& out)
{
  const auto n = static_cast<double>(row.size);
  out = {};
  out.size = row.size;
  if (g == nullptr) return Formed::done;
  if (*g == 0.0) return Formed::zero_variance;
  out.inverse = 1.0 / *g;
  out.log_determinant = n * std::log(std::fabs(*g));
  out.derivative.assign(1, out.inverse * out.inverse);
  out.score_part.assign(1, n * out.inverse);
  return Formed::done;
}

/// L_FORM_ROW: forms one row by its model; the fault is 0 when that went well.
std::int64_t L_FORM_ROW(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const VARIANCE_MODEL& model,
                        FORMED_ROW& out)
{
  const Frame here{eh, __func__};
  const bool own_variance = row.scale >= 0;
  if (row.model != 0) {
    eh.internal(text("unexpected variance model code ", row.model));
    return structure_failed + row.model;
  }
  if (row.parameters != (own_variance ? 1 : 0)) {
    eh.internal(
        text("size of structure seems wrong, nrow = ", row.size, ", gammas count = ", row.parameters));
    return structure_failed;
  }
  const double* g = own_variance ? &model.parameters[static_cast<std::size_t>(row.scale)].value : nullptr;
  if (g != nullptr && !std::isfinite(*g)) return not_a_number;
  return form_identity(row, g, out) == Formed::done ? 0 : structure_failed;
}

}  // namespace

void K4MVSF(ERROR_HANDLER& eh, const TERM_TABLE& terms, VARIANCE_MODEL& model, std::int64_t, FORMED& formed,
            std::int64_t& fault)
{
  const Frame here{eh, __func__};
  fault = 0;
  formed.terms.resize(model.terms.size());
  for (std::size_t i = 0; i < model.terms.size(); ++i) {
    const TERM_STRUCTURE& structure = model.terms[i];
    FORMED_TERM& term = formed.terms[i];
    term.size = terms.rows[static_cast<std::size_t>(structure.term)].equations;
    term.log_determinant = 0.0;
    term.rows.clear();
    if (structure.dropped) continue;
    term.rows.resize(static_cast<std::size_t>(structure.rows));
    for (std::int64_t r = 0; r < structure.rows; ++r) {
      FORMED_ROW& row = term.rows[static_cast<std::size_t>(r)];
      fault = L_FORM_ROW(eh, model.rows[static_cast<std::size_t>(structure.first_row + r)], model, row);
      if (fault != 0) return;
      // log|A x B| = size(B) log|A| + size(A) log|B|
      if (row.size > 0)
        term.log_determinant += row.log_determinant * static_cast<double>(term.size / row.size);
    }
  }

  // A profiled residual is I: its variance, sigma2, is found by the evaluation.
  const STRUCTURE_ROW& residual = model.residual.front();
  const double own =
      model.profiled ? 1.0 : model.parameters[static_cast<std::size_t>(model.residual_parameter)].value;
  if (!std::isfinite(own)) {
    fault = not_a_number;
  } else if (own == 0.0) {
    fault = residual_is_zero;
  } else if (own < 0.0) {
    fault = residual_is_negative;
  } else {
    form_identity(residual, &own, formed.residual);
  }
}

}  // namespace tolvan
