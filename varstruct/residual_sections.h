// The residual of a model: its sections, their components and their place among the analysis records.
// Routines: NEW_GETRCOV, HAVE_RCOV, NOT_AUTOAR, COMPLETE_SPATIAL_GRID, SETRCOV, SORTRCOV, NOT_AUTOAR_MODEL_CHECKS.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "base/json.h"
#include "data/data_store.h"
#include "data/design_matrix.h"
#include "data/variable_table.h"
#include "model/term_table.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// One component of the direct product of a section.
struct RESIDUAL_COMPONENT {
  std::int64_t factor = 0;    // factor row
  std::string function = {};  // variance function; empty: an identity
  std::int64_t size = 0;      // levels in the section; 0 until SETRCOV
  COORDINATES coordinates;    // of the levels, for a model with distances; else empty
};

/// RESIDUAL_TERM::condition of sections that the traits tell apart.
inline constexpr std::int64_t trait_condition = -1;

/// One section: the records that meet its condition, in the order of its product.
struct RESIDUAL_TERM {
  std::int64_t term = -1;      // index in TERM_TABLE::rows; -1: the default residual
  std::string name = {};       // the user's text; empty for units
  std::int64_t condition = 0;  // variable whose level tells the records, or trait_condition; 0: all records
  std::int64_t level = 0;
  std::vector<RESIDUAL_COMPONENT> components;
  std::int64_t first_record = 0;  // rows of the design, from 0; set by SORTRCOV
  std::int64_t records = 0;
};

struct RESIDUAL_MODEL {
  std::vector<RESIDUAL_TERM> sections;
  bool gamma = true;                             // ratios to one profiled variance; false: absolute values
  bool is_default = false;                       // the model has no residual term
  std::int64_t rowfactor = 0, columnfactor = 0;  // variables that the options name, 0 for none
  bool presorted = false;                        // the records are taken as they stand
};

/// NEW_GETRCOV: reads the residual terms into sections and settles the scale of the variance parameters.
///   request  for the options section, rowfactor and columnfactor, which name factors
void NEW_GETRCOV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                 const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                 const MODEL_INFO& info, RESIDUAL_MODEL& residual);

/// HAVE_RCOV: checks what the model says of a residual of its own against the traits.
void HAVE_RCOV(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIABLE_TABLE& variables,
               const FACTOR_TABLE& factors, const MODEL_INFO& info, const RESIDUAL_MODEL& residual);

/// NOT_AUTOAR: builds the residual of a model that has none: an identity over the records, or that times an
/// unstructured matrix between the traits.
void NOT_AUTOAR(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const MODEL_INFO& info,
                RESIDUAL_MODEL& residual);

/// COMPLETE_SPATIAL_GRID: adds the plots that the data lack (FILLGRID) where the options rowfactor and columnfactor name two
/// factors that the residual's sections have as components; mv must be in the model to estimate them.
void COMPLETE_SPATIAL_GRID(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                           const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                           const MODEL_INFO& info, DATA_STORE& store);

/// SETRCOV: checks the factors that the options name against the components of every section.
void SETRCOV(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
             const RESIDUAL_MODEL& residual);

/// SORTRCOV: finds the place of every analysis record in the sections and sorts the design to it.
///   design    its rows are reordered: sections one after the other, each in the order of its product, first
///   component
///             slowest; `mv` keeps the order of its equations
///   residual  sizes and coordinates of components, places of sections are set
/// A record without a place, or a place without a record or with two, is an error; the design is then as it
/// was.
void SORTRCOV(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
              const MODEL_INFO& info, const DATA_STORE& store, RESIDUAL_MODEL& residual, DESIGN_MTX& design);

/// NOT_AUTOAR_MODEL_CHECKS: the last check of the data's shape against the rows of the residual.
void NOT_AUTOAR_MODEL_CHECKS(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const MODEL_INFO& info,
                             const DESIGN_MTX& design, const RESIDUAL_MODEL& residual,
                             const VARIANCE_MODEL& model);

/// Whether the residual is the one of several traits: records times an unstructured matrix between the
/// traits.
bool is_multivariate_residual(const FACTOR_TABLE& factors, const RESIDUAL_TERM& section);

/// Whether a factor row stands for the records, or for the traits.
bool is_units(const FACTOR_TABLE& factors, std::int64_t row);
bool is_trait(const FACTOR_TABLE& factors, std::int64_t row);

}  // namespace tolvan
