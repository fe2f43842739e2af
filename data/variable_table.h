// The variables of the primary data set with their types, level counts and labels.
// Routines: NEW_AIDTIN, PROCESS_NUMBER_OF_LEVELS, UPDATE_NUMBER_OF_LEVELS, CHECK_VARIABLE_NAME_VALIDITY,
// INITFLL, GET_LEVEL_NAME.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "api/communication.h"
#include "api/error_handler.h"
#include "base/json.h"
#include "data/level_table.h"
#include "data/transform_program.h"

namespace tolvan {

enum class FieldType { variate, string_factor, integer_factor, integer_factor_1_to_n };

/// What the texts of a variate's fields spell.
enum class FieldContent { number, date, time };

struct VARIABLE {
  std::string name;
  FieldType type = FieldType::variate;
  FieldContent content = FieldContent::number;
  std::int64_t column = 0;           // its column in the source, from 1; 0: in none, transformations make it
  std::int64_t declared_levels = 0;  // number_of_levels; 0: from the data
  std::int64_t label_length = 0;     // longest label kept; 0: no limit
  std::int64_t indexed_from = 1;     // the number of the first label
  std::int64_t place = 0;  // the column that its place in the list stands for, if it is in any
  bool column_given = false;             // by user_column_number
  bool is_pedigree_factor = false;
  bool sort = false;
  bool labels_fixed = false;            // factor_labels were given
  std::string code_levels_as;           // empty: its own
  std::string group;                    // empty: in none
  std::vector<std::string> recode_labels;  // of the matrix whose order the levels take; empty: none
  std::string recode_because;              // the call that asks for it
  std::int64_t levels = 0;              // level count in use; known for every factor once the data are read
  LEVEL_TABLE labels;                   // empty for a variate and for a coded factor without labels
  std::int64_t shares_levels_with = 0;  // row of the variable named by code_levels_as, 0: none

  bool is_factor() const { return type != FieldType::variate; }
};

struct VARIABLE_TABLE {
  std::vector<VARIABLE> rows;
  std::int64_t longest_label = 0;
  std::int64_t places = 0;  // columns that the variables take up in the order of their list
  std::int64_t source_columns = 0;  // fields of the first record of a file, where they were counted
  TRANSFORM_PROGRAM transformations;

  std::int64_t count() const { return static_cast<std::int64_t>(rows.size()); }
  /// The row of a name, from 1; 0 when there is none.  Names are compared exactly.
  std::int64_t find(std::string_view name) const;
  /// The rows of a group, from 1; none for a name that is no group.
  std::vector<std::int64_t> members(std::string_view group) const;
  VARIABLE& row(std::int64_t i) { return rows[static_cast<std::size_t>(i - 1)]; }
  const VARIABLE& row(std::int64_t i) const { return rows[static_cast<std::size_t>(i - 1)]; }
};

/// NEW_AIDTIN: builds the variable table from a list of variable descriptions.
///   variables   the array node "variables" of the primary data (null: an error)
/// Beside the list may stand "group" statements on its variables, and around it the request with the datasets whose
/// labels factors follow.  A member of a group that no variable describes becomes a variable of its own.
void NEW_AIDTIN(ERROR_HANDLER& eh, const COMMUNICATION& communication, JsonNode* variables,
                VARIABLE_TABLE& table);

/// PROCESS_NUMBER_OF_LEVELS: takes the declared level count or shares the levels of another variable or of a group of
/// the table.
void PROCESS_NUMBER_OF_LEVELS(ERROR_HANDLER& eh, VARIABLE_TABLE& table, std::int64_t row,
                              JsonNode& description);

/// UPDATE_NUMBER_OF_LEVELS: takes number_of_levels of a factor's description over.
void UPDATE_NUMBER_OF_LEVELS(ERROR_HANDLER& eh, VARIABLE& variable, const JsonNode& description);

/// CHECK_VARIABLE_NAME_VALIDITY: tells whether a name is legal for a variable; complains unless suppress is
/// set.
bool CHECK_VARIABLE_NAME_VALIDITY(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                  std::string_view name, bool allow_reserved = false, bool suppress = false);

/// For each variable, counted from 0, the first row (from 1) of those that share its levels: its own row when
/// it shares none.
std::vector<std::int64_t> level_owners(const VARIABLE_TABLE& table);

/// INITFLL: checks factor_labels against the declared counts and hands both to the variables that share
/// levels.
void INITFLL(ERROR_HANDLER& eh, VARIABLE_TABLE& table);

/// GET_LEVEL_NAME: the text of a level: its label, "NA" at or below the missing mark, or the number of a
/// coded factor.
std::string GET_LEVEL_NAME(ERROR_HANDLER& eh, const VARIABLE& variable, std::int64_t level);

}  // namespace tolvan
