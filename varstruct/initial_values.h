// What a term says about its parameters beside the model.  Routines: SAVE_INITIAL_VALUES,
// GET_INITIAL_VALUES_FROM_JSON, APPLY_QUALIFIERS.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "data/data_store.h"
#include "data/design_matrix.h"
#include "model/factor_table.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The initial values and qualifiers of one term; an empty field was not given.
struct IVALUE_DATA {
  std::vector<double> values;
  std::vector<double> coord;
  std::string use;
  std::string ps_constraints;
  std::string eq_constraints;
  std::string subsection;
  std::int64_t sing = 0;

  bool empty() const
  {
    return values.empty() && coord.empty() && use.empty() && ps_constraints.empty() &&
           eq_constraints.empty() && subsection.empty() && sing == 0;
  }
};

/// SAVE_INITIAL_VALUES: reads the qualifiers of a term node, from the node itself or from its
/// `initial_values` object.
void SAVE_INITIAL_VALUES(ERROR_HANDLER& eh, const JsonNode& term, IVALUE_DATA& data);

/// What a component of a term says about its own part of the structure.
struct TERM_PART {
  std::int64_t factor = 0;  // factor row of the component; 0: the term has none for it
  IVALUE_DATA data;
};

/// TERM_PARTS: the components of a term, or of the structure that terms share, whose nodes in the request hold qualifiers.
void TERM_PARTS(ERROR_HANDLER& eh, const TERM_ROW& term, std::vector<TERM_PART>& parts);

/// GET_INITIAL_VALUES_FROM_JSON: lays the request's list of initial values and constraints over the
/// parameters.
void GET_INITIAL_VALUES_FROM_JSON(ERROR_HANDLER& eh, const JsonNode& request, const FACTOR_TABLE& factors,
                                  const TERM_TABLE& terms, VARIANCE_MODEL& model);

/// A structure of the model with its stretch of the parameter vector: a random term, or a residual section,
/// whose variance behind the rows is the last.
struct PARAMETER_RANGE {
  std::vector<STRUCTURE_ROW>* rows = nullptr;  // of random terms or of the residual; null: no such structure
  std::int64_t first_row = 0, row_count = 0;
  std::int64_t first = 0;
  std::int64_t count = 0;
  std::int64_t scale = -1;    // the variance behind the rows of a section
  std::int64_t section = -1;  // index of the residual section, -1 for a random term
};
PARAMETER_RANGE parameters_of(VARIANCE_MODEL& model, const TERM_STRUCTURE& structure);
PARAMETER_RANGE parameters_of(VARIANCE_MODEL& model, const RESIDUAL_SECTION& section);
/// The structure that a term's text means: its name, or the text its labels begin with; rows is null when
/// there is none.
PARAMETER_RANGE find_structure(const FACTOR_TABLE& factors, const TERM_TABLE& terms, VARIANCE_MODEL& model,
                               std::string_view name);

/// What the qualifiers of a term look up beside the tables.
struct QUALIFIER_DATA {
  const FACTOR_TABLE& factors;
  const TERM_TABLE& terms;
  const DATA_STORE& store;
  const DESIGN_MTX& design;  // sorted to the residual
};

/// APPLY_QUALIFIERS: `use`, `coord`, `sing` and `subsection` of one term.
///   term  as messages call it
void APPLY_QUALIFIERS(ERROR_HANDLER& eh, const QUALIFIER_DATA& data, const IVALUE_DATA& given,
                      const std::string& term, const PARAMETER_RANGE& range, VARIANCE_MODEL& model);

/// The parameter that a name means: its label, or the text of a term that owns just one; -1 when there is
/// none.
std::int64_t find_parameter(const FACTOR_TABLE& factors, const TERM_TABLE& terms, VARIANCE_MODEL& model,
                            std::string_view name);

/// Sets a parameter's value or constraint; false when the parameter is the profiled residual and can not have
/// it.
bool set_value(VARIANCE_MODEL& model, std::int64_t parameter, double value);
bool set_constraint(VARIANCE_MODEL& model, std::int64_t parameter, Constraint constraint);

/// REFUSE_PROFILED_RESIDUAL: complains of a value or constraint for a residual variance that is profiled.
void REFUSE_PROFILED_RESIDUAL(ERROR_HANDLER& eh, std::string_view term);

}  // namespace tolvan
