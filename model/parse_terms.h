// Reading the terms of the standard form into the factor and term tables.  Used by the parser of the model
// alone. Routines: PARSE_MODEL_FORMULA_FROM_JPTR, LOOP_OVER_TERMS_FROM_JPTR, ADD_, FLATTEN_INTERACTION.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/term_table.h"

namespace tolvan {

/// What the parser reads and fills.
struct MODEL_PARSER {
  const COMMUNICATION& communication;
  const VARIABLE_TABLE& variables;
  FACTOR_TABLE& factors;
  TERM_TABLE& terms;
  MODEL_INFO& info;
  std::int64_t units = 0;  // factor rows of the reserved factors; 0 where the model has none
  std::int64_t mu = 0;
  std::int64_t mv = 0;
};

/// One factor of a term before it has a row of its own.
struct COMPONENT {
  std::int64_t row = 0;           // the factor row that it stands for
  std::string structure = {};     // the variance function named on it
  std::vector<double> init = {};  // starting values given to that function
  std::string name = {};          // as the user wrote it
};

/// ADD_FACTOR_ROW: adds a row to the factor table and gives its number, or that of a row of the same name that is no copy.
std::int64_t ADD_FACTOR_ROW(ERROR_HANDLER& eh, MODEL_PARSER& parser, FACTOR_ROW row);
/// ADD_ARGUMENT_FROM_JPTR: the component of an argument that stands for a variable, a factor or another call.
///   shown   the call as the user wrote it, for messages
COMPONENT ADD_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& function,
                                 std::string_view argument, const std::string& shown, Block block);

/// PARSE_MODEL_FORMULA_FROM_JPTR: reads one part of the model; its terms go to one block.
void PARSE_MODEL_FORMULA_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& part,
                                   Block block);
/// LOOP_OVER_TERMS_FROM_JPTR: reads the terms of a list.
void LOOP_OVER_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& list, Block block);
/// ADD_TERM_FROM_JPTR: reads one element of a list into a term row.
void ADD_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_SPECIAL_TERM_FROM_JPTR: the component of a plain name: a variable or a reserved factor.
COMPONENT ADD_SPECIAL_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node);
/// ADD_FUNCTION_FROM_JPTR: the component of a call; id() and idv() name a structure in the random part.
COMPONENT ADD_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_INTERACTION_FROM_JPTR: the components of an interaction, in their order.
std::vector<COMPONENT> ADD_INTERACTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser,
                                                 const JsonNode& node, Block block);
/// FLATTEN_INTERACTION: the elements of an interaction, those of interactions within it in their place.
void FLATTEN_INTERACTION(ERROR_HANDLER& eh, const JsonNode& interaction, std::vector<const JsonNode*>& out,
                         std::int64_t depth = 0);

}  // namespace tolvan
