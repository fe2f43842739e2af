// The term table and what the model statement says beside it.
// Routines: NEW_PARSE_LINEAR_MODEL, COMPLETE_LINEAR_MODEL, SET_FACTOR_LEVELS, SET_TERM_EQUATIONS,
// CHECK_FOR_INTERACTION_NO_MAIN.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"
#include "data/variable_table.h"
#include "model/factor_table.h"

namespace tolvan {

enum class Block { response, fixed, random, sparse, residual };

/// One model term.  The code tells its factors: up to 10000 a row of the factor table; above, code / 10000
/// components in consecutive rows from code modulo 10000 on, plus one row less: see components().
struct TERM_ROW {
  std::int32_t code = 0;
  std::int64_t equations = 0;  // 0 for the response
  std::int64_t first = 0;      // first equation, from 0, in model order
  Block block = Block::fixed;
  std::string name = {};  // as shown in tables: "block:wplot", "idv(a)"; mv is "mv_estimates"
  bool dropped = false;
  bool is_mv = false;
  bool joins = false;  // holds and(): its design is added to the equations of the nearest term before it that has its own
  std::int64_t linked_head = -1;  // index of the first term of its linked group, whose structure it shares; -1: not linked
  std::int64_t structure_first = 0, structure_last = 0;  // factor rows of the structure where it has its own, str(); else 0
  std::int64_t added = 0;  // of its equations, the last ones that no level of it has: factors of the structure that it shares,
                           // and what binds levels to them
  std::int64_t condition = 0;  // of a residual section: the factor row of at() or sat() that tells its records; 0: all records
  const JsonNode* initial_values = nullptr;  // the node that may hold values, ps_constraints, ...; null: none

  /// First and last component row in the factor table, from 1.
  std::pair<std::int64_t, std::int64_t> components() const
  {
    if (code <= 10000) return {code, code};
    const std::int64_t from = code % 10000;
    return {from, from + code / 10000 - 1};
  }
  /// First and last factor row of the variance structure, from 1.
  std::pair<std::int64_t, std::int64_t> structure() const
  {
    if (structure_first > 0) return {structure_first, structure_last};
    return components();
  }
};

/// True for the terms that have equations; a response and a residual section have none.
inline bool has_equations(const TERM_ROW& term)
{
  return term.block != Block::response && term.block != Block::residual;
}

/// The terms in the order response, fixed, random, sparse, residual (a row a section, without equations), system (mv last).
struct TERM_TABLE {
  std::vector<TERM_ROW> rows;
  std::int64_t equations = 0;        // of all terms
  std::int64_t fixed_equations = 0;  // of block fixed, the first ones
};

/// What the model says beside its terms.
struct MODEL_INFO {
  std::vector<std::int64_t> responses;  // factor rows of the response variables, one a trait
  std::int64_t trait = 0;               // factor row of the trait factor, 0 in a model with one response
  std::int64_t stacked = 0;             // traits that stand in one response, a record each, by turns (option asmv); 0: none do
  /// The traits: one a response, or those that stand in one.
  std::int64_t traits() const { return stacked > 0 ? stacked : static_cast<std::int64_t>(responses.size()); }
  std::int64_t weights = 0;             // factor row, 0 for none
  std::int64_t offset = 0;              // factor row, 0 for none
  bool has_mv = false;
  bool waits_for_levels = false;        // terms that stand for all levels, or for labels, that only the data tell
  const JsonNode* residual = nullptr;  // the residual part, null when absent
  const JsonNode* family = nullptr;
};

/// NEW_PARSE_LINEAR_MODEL: reads the standard form of the model into the factor and term tables.
void NEW_PARSE_LINEAR_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& request,
                            const VARIABLE_TABLE& variables, FACTOR_TABLE& factors, TERM_TABLE& terms,
                            MODEL_INFO& info);

/// COMPLETE_LINEAR_MODEL: reads the model again once the data have told all levels, where it waits for them: terms
/// that stand for all levels of a factor become a term a level.  Level counts of derived factors are not set before this.
void COMPLETE_LINEAR_MODEL(ERROR_HANDLER& eh, const COMMUNICATION& communication, const JsonNode& request,
                           const VARIABLE_TABLE& variables, FACTOR_TABLE& factors, TERM_TABLE& terms,
                           MODEL_INFO& info);

/// Marks the terms with and(), whose design is added to that of others.
void mark_joining_terms(const FACTOR_TABLE& factors, TERM_TABLE& terms);

/// SET_FACTOR_LEVELS: brings the level counts of all factor rows up to what variables and bases of design functions tell.
///   records   data records, the levels of units;  missing   retained missing responses, the levels of mv
void SET_FACTOR_LEVELS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records, std::int64_t missing,
                       FACTOR_TABLE& factors);

/// SET_TERM_EQUATIONS: takes the level counts over from the variables, and copies from their sources, and numbers the
/// equations of every term.
///   records   analysis records, the levels of units;  missing   retained missing responses, the equations of
///   mv
void SET_TERM_EQUATIONS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, std::int64_t records,
                        std::int64_t missing, FACTOR_TABLE& factors, TERM_TABLE& terms);

/// CHECK_FOR_INTERACTION_NO_MAIN: the rows (from 1) of the terms that are interactions without all their main
/// effects in the model.
std::vector<std::int64_t> CHECK_FOR_INTERACTION_NO_MAIN(const FACTOR_TABLE& factors, const TERM_TABLE& terms);

/// Whether a level (from 1) of a term is no effect but an equation that binds a level of fa() or rr() to its factors.
bool binds_a_level(const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t level);

/// The levels (from 1) of the components of a term that make up one of its own, first component first.
std::vector<std::int64_t> component_levels(const FACTOR_TABLE& factors, const TERM_ROW& term, std::int64_t level);
/// The name of a level of one component of a term, by its factor row; empty for a covariate.
std::string component_level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, std::int64_t row,
                                 std::int64_t level);

/// The name of a level (from 1) of a term for tables: the labels of its factors joined with a dot; a
/// covariate has none, and a term of covariates alone, mu among them, gives "1".
std::string level_name(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                       const TERM_ROW& term, std::int64_t level);

}  // namespace tolvan
