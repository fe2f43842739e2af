// The last check of the parameter table before the fit.  Routine: STRUCTURECHECK.
#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "varstruct/extended_factors.h"
#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/starting_values.h"
#include "varstruct/structure_parameters.h"

namespace tolvan {

namespace {

constexpr std::int64_t fa = 10, facv = 13, xfa = 15;  // model codes

constexpr const char* one_variance =
    "normally (only) one structure term includes a variance, maybe you should change the parameterisation";

/// Whether a row has a scale that is to be estimated.
bool estimates_scale(const VARIANCE_MODEL& model, const STRUCTURE_ROW& row)
{
  if (!holds_variance(row)) return false;
  for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
    const ParamRole role = model.parameters[static_cast<std::size_t>(i)].role;
    const bool scale = role != ParamRole::correlation && (role != ParamRole::other || row.model == 7);
    if (scale && is_estimated(model, i)) return true;
  }
  return false;
}

/// L_CHECK_TERM: checks one random term: its stretch of the vector, its size, and its count of scales.
void L_CHECK_TERM(ERROR_HANDLER& eh, const TERM_TABLE& terms, const TERM_STRUCTURE& structure,
                  const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const TERM_ROW& term = terms.rows[static_cast<std::size_t>(structure.term)];
  const std::int64_t equations = structure_equations(terms, structure.term);
  std::int64_t size = 1, scales = 0, to_estimate = 0;
  for (std::int64_t r = 0; r < structure.rows; ++r) {
    const STRUCTURE_ROW& row = model.rows[static_cast<std::size_t>(structure.first_row + r)];
    if (row.first < 0 || row.parameters < 0 || row.first + row.parameters > model.count()) {
      eh.internal(text("Overparamaterized variance model: ", term.name));  // sic
      return;
    }
    size *= row.size;
    if (!holds_variance(row)) continue;
    ++scales;
    if (estimates_scale(model, row)) ++to_estimate;
  }
  if (size != equations) {
    eh.error(text("unable to find which block of struc values are associated with ", term.name));
    eh.continuation(text("its structure has ", size, " levels, the term has ", equations));
    return;
  }
  const STRUCTURE_ROW& only = model.rows[static_cast<std::size_t>(structure.first_row)];
  if (structure.rows == 1 && scales == 0 && only.model == 0 && only.matrix == nullptr) {
    eh.error("Scaling parameter is expected for Identity matrix");
    eh.continuation(term.name);
    return;
  }
  // None at all is a term whose variance is that of the residual; two can not be told apart.
  if (scales > 0 && to_estimate <= 1) return;
  if (term.linked_head >= 0) {
    eh.warning(text("G structure for term with ", size, " levels has ", to_estimate,
                    " variance scale parameters to estimate"));
  } else {
    eh.warning(
        text("G structure for ", term.name, " has ", to_estimate, " variance scale parameters to estimate"));
  }
  eh.continuation(one_variance);
}

/// The loadings of a factor model: where they begin in the vector, levels and factors; factors is 0 for
/// another model.
struct LOADINGS {
  std::int64_t first = 0, levels = 0, factors = 0;
};

LOADINGS loadings_of(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  if (row.model == xfa) {
    const EXTENDED_LAYOUT layout = extended_layout(row, model);
    return {row.first + layout.levels, layout.levels, layout.factors};
  }
  if ((row.model == fa || row.model == facv) && row.size > 0)
    return {row.first, row.size, row.parameters / row.size - 1};
  return {};
}

/// Turns the loadings by plane rotations (Golub and Van Loan, sec. 5.1.8) so that those of factor j are zero
/// in the levels before the j-th, where they are then fixed; LL' stays.
void turn_loadings(const LOADINGS& at, VARIANCE_MODEL& model)
{
  const auto l = [&](std::int64_t i, std::int64_t j) -> VARIANCE_PARAMETER& {
    return model.parameters[static_cast<std::size_t>(at.first + j * at.levels + i)];
  };
  for (std::int64_t i = 0; i < std::min(at.levels, at.factors); ++i) {
    for (std::int64_t j = at.factors; --j > i;) {
      const double a = l(i, i).value, b = l(i, j).value, r = std::hypot(a, b);
      if (b != 0.0) {
        for (std::int64_t k = i; k < at.levels; ++k) {
          const double p = l(k, i).value, q = l(k, j).value;
          l(k, i).value = (a * p + b * q) / r;
          l(k, j).value = (a * q - b * p) / r;
        }
      }
      l(i, j).value = 0.0;
      l(i, j).constraint = Constraint::F;
    }
  }
  for (std::int64_t k = 0; k < at.levels * at.factors; ++k) {
    VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(at.first + k)];
    p.start = p.value;
  }
}

/// L_CHECK_FACTORS: makes the loadings of a factor model unique, or says that they are not.
void L_CHECK_FACTORS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const std::string& term,
                     const STRUCTURE_ROW& row, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  const LOADINGS at = loadings_of(row, model);
  if (at.factors < 1) return;
  const bool damped = options(Slot::aipenalty) != -1;
  if (at.factors > 1 && damped) {
    eh.warning(
        "due to the use of a Levenberg type damping modification to avoid singularities, the FA parameters "
        "obtained will not be unique");
    eh.continuation("set aipenalty to zero to avoid the Levenberg type damping modification");
  } else if (at.factors > 1) {
    // The user's own constraints are left alone.
    bool all_free = true;
    for (std::int64_t k = 0; k < at.levels * at.factors; ++k) {
      const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(at.first + k)];
      all_free = all_free && is_free(p.constraint) && !follows(p);
    }
    if (all_free) {
      eh.note(
          "since an aipenalty of zero has been specified, parameter constraints must be applied to avoid AI "
          "singularities");
      eh.continuation(text("loadings of ", term, " that a turn of its factors makes zero are held there"));
      turn_loadings(at, model);
    }
  }
  if (row.model != xfa) return;
  const std::int64_t m = at.levels, k = at.factors;
  const std::int64_t expected = std::min(m * (k + 1) - k * (k - 1) / 2, m * (m + 1) / 2);
  std::int64_t found = 0;
  for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
    if (is_free(model.parameters[static_cast<std::size_t>(i)].constraint)) ++found;
  }
  if (found <= expected) return;
  eh.warning(text("the XFA term in ", term, " appears to have more free parameters (", found,
                  ") than formally expected (", expected, "), ignoring any formal user constraints"));
}

/// L_CHECK_SECTIONS: compares the residual with the design, and counts its scales.
void L_CHECK_SECTIONS(ERROR_HANDLER& eh, const DESIGN_MTX& design, const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t records = 0;
  for (std::size_t s = 0; s < model.sections.size(); ++s) {
    const RESIDUAL_SECTION& section = model.sections[s];
    records += section.records;
    std::int64_t to_estimate = section.scale >= 0 && is_estimated(model, section.scale) ? 1 : 0;
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      if (estimates_scale(model, model.residual[static_cast<std::size_t>(r)])) ++to_estimate;
    }
    if (to_estimate <= 1) continue;
    eh.warning(text("R structure for section ", s + 1, " appears to have ", to_estimate,
                    " variance scale parameters to estimate"));
    eh.continuation(one_variance);
  }
  if (records == design.rows()) return;
  eh.error(text("R structure for ", records,
                " records does not match the data, probably due to an imbalance caused by the removal of "
                "missing values"));
  eh.continuation(text("number of sections: ", model.sections.size(), ", total size of sections: ", records,
                       ", number of rows in design matrix: ", design.rows()));
  eh.continuation("the model is invalid");
}

/// L_CHECK_ORDER: every row owns the stretch of the vector behind those before it.
void L_CHECK_ORDER(ERROR_HANDLER& eh, const VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t next = 0;
  const auto take = [&](std::int64_t first, std::int64_t count) {
    if (count > 0 && first != next && !eh.terminate()) {
      eh.internal(text("was expecting struc(4,i)+ii-1 = lk, struc(4,i)+ii-1 = ", first + 1, ", lk = ", next + 1));
    }
    next += count;
  };
  for (const STRUCTURE_ROW& row : model.rows) take(row.first, row.parameters);
  for (const RESIDUAL_SECTION& section : model.sections) {
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
      take(row.first, row.parameters);
    }
    if (section.scale >= 0) take(section.scale, 1);
  }
}

}  // namespace

void STRUCTURECHECK(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms,
                    const DESIGN_MTX& design, VARIANCE_MODEL& model)
{
  const Frame here{eh, __func__};
  std::int64_t owned = 0;
  for (const STRUCTURE_ROW& row : model.rows) owned += row.parameters;
  for (const STRUCTURE_ROW& row : model.residual) owned += row.parameters;
  for (const RESIDUAL_SECTION& section : model.sections) owned += section.scale >= 0 ? 1 : 0;
  if (owned != model.count()) {
    eh.internal(text("Overparamaterized variance model: ", owned, " parameters in the structures, ",
                     model.count(), " in the vector"));
    return;
  }
  L_CHECK_ORDER(eh, model);
  if (eh.terminate()) return;
  for (const TERM_STRUCTURE& structure : model.terms) {
    L_CHECK_TERM(eh, terms, structure, model);
    if (eh.terminate()) return;
    const std::string& name = terms.rows[static_cast<std::size_t>(structure.term)].name;
    for (std::int64_t r = structure.first_row; r < structure.first_row + structure.rows; ++r) {
      L_CHECK_FACTORS(eh, options, name, model.rows[static_cast<std::size_t>(r)], model);
    }
  }
  for (const RESIDUAL_SECTION& section : model.sections) {
    for (std::int64_t r = section.first_row; r < section.first_row + section.rows; ++r) {
      L_CHECK_FACTORS(eh, options, section.name, model.residual[static_cast<std::size_t>(r)], model);
    }
  }
  L_CHECK_SECTIONS(eh, design, model);
}

}  // namespace tolvan
