// The design: for each analysis record its response, weight and the equations present in it.
// Routines: DMT_SETUP, DMT_ADD_ROWS, DMT_RESIZE_TO, L_SORT_BY_TRAIT, FORM_DESIGN_BASES, AIDSGN, CHECK_AND_CONFORMITY,
// MORE_AIDATA_SETUP.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "data/data_store.h"
#include "data/dataset.h"
#include "data/file_covariates.h"
#include "data/variable_table.h"
#include "model/factor_table.h"
#include "model/term_table.h"

namespace tolvan {

/// Rows of (equation, value) pairs, equations from 0 in model order and rising within a row; compressed rows.
struct DESIGN_MTX {
  std::vector<std::int64_t> start{0};  // one more than rows
  std::vector<std::int32_t> equation;
  std::vector<double> value;

  std::vector<double> response;      // one an analysis record; 0 where mv estimates it
  std::vector<double> offset;        // known part of the linear predictor, as long as the response; empty: none
  std::vector<double> weight;        // empty: all 1
  std::vector<std::int64_t> record;  // data record of each analysis record, from 1
  std::vector<std::int32_t> trait;   // trait of each analysis record, from 1; empty with one response
  std::int64_t stacked = 0;          // traits that stand in one response, a data record each, by turns; 0: none do
  std::vector<std::int64_t> mv;   // analysis records (from 0) whose response is estimated, in equation order
  std::int64_t data_records = 0;  // records of the data store
  std::int64_t negative_weights = 0;  // records whose weight was below 0; it is 0 here
  std::int64_t zero_weights = 0;      // records whose weight was 0 as it came

  std::int64_t rows() const { return static_cast<std::int64_t>(start.size()) - 1; }
  /// The trait of an analysis record, from 1.
  std::int64_t trait_of(std::size_t row) const
  {
    if (stacked > 0) return (record[row] - 1) % stacked + 1;
    return trait.empty() ? 1 : trait[row];
  }
  /// What its traits belong to, from 1: the data record, or as many of them as there are traits in one response.
  std::int64_t unit_of(std::size_t row) const { return stacked > 0 ? (record[row] - 1) / stacked + 1 : record[row]; }
  /// What the terms of a linear model have to explain of a response: what is left of it beside the offset.
  double beside_offset(std::size_t row) const { return offset.empty() ? response[row] : response[row] - offset[row]; }
  std::span<const std::int32_t> equations(std::int64_t row) const
  {
    const auto i = static_cast<std::size_t>(row);
    return {equation.data() + start[i], static_cast<std::size_t>(start[i + 1] - start[i])};
  }
  std::span<const double> values(std::int64_t row) const
  {
    const auto i = static_cast<std::size_t>(row);
    return {value.data() + start[i], static_cast<std::size_t>(start[i + 1] - start[i])};
  }
};

/// DMT_SETUP: empties a design and reserves for a number of rows and of elements a row.
void DMT_SETUP(ERROR_HANDLER& eh, DESIGN_MTX& design, std::int64_t rows, std::int64_t elements_a_row);
/// DMT_ADD_ROWS: appends one row of equations (from 0, rising) with their values.
void DMT_ADD_ROWS(ERROR_HANDLER& eh, DESIGN_MTX& design, std::span<const std::int32_t> equations,
                  std::span<const double> values);
/// DMT_RESIZE_TO: gives back memory beyond the rows in use.
void DMT_RESIZE_TO(ERROR_HANDLER& eh, DESIGN_MTX& design);

/// FORM_DESIGN_BASES: finds what the design functions of the factor table need of the data as a whole: distinct values,
/// ranges, knots, counts, rows of files.  One pass over the records, one more for each nesting of such functions.
/// All records count, those without a response too.
///   tables   of covariates that were read ahead
void FORM_DESIGN_BASES(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                       const USER_DATASET_STORE& datasets, const COVARIATE_TABLES& tables, const VARIABLE_TABLE& variables,
                       const DATA_STORE& store, FACTOR_TABLE& factors);

/// L_SORT_BY_TRAIT: puts all rows of a trait behind those of the traits before it, in the order in which they were.
///   mv   the first equation of mv, which number rows in their order; -1 without it
void L_SORT_BY_TRAIT(ERROR_HANDLER& eh, std::int64_t traits, std::int64_t mv, DESIGN_MTX& design);

/// AIDSGN: forms the design row of every record, treating missing responses and design values as the options
/// say.
///   terms     first equations are set (SET_TERM_EQUATIONS); the mv term, last of all, gets its equation
///   count here
void AIDSGN(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const VARIABLE_TABLE& variables,
            const DATA_STORE& store, FACTOR_TABLE& factors, TERM_TABLE& terms, const MODEL_INFO& info,
            DESIGN_MTX& design);

/// CHECK_AND_CONFORMITY: brings factors joined by and() to one size.
void CHECK_AND_CONFORMITY(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records, FACTOR_TABLE& factors,
                          const TERM_TABLE& terms);

/// Which of so many equations any record has.
std::vector<bool> equations_met(const DESIGN_MTX& design, std::int64_t equations);

/// MORE_AIDATA_SETUP: tells of terms that have a variance but no design in any record.
///   gammas   by row of the term table the variance, as it stands, or a first parameter; 0 for terms that have none
void MORE_AIDATA_SETUP(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const TERM_TABLE& terms, const DESIGN_MTX& design,
                       std::span<const double> gammas);

}  // namespace tolvan
