// Reading the terms of the standard form into the factor and term tables.  Used by the parser of the model and by the design
// functions alone.  Routines: PARSE_MODEL_FORMULA_FROM_JPTR, PARSE_RESIDUAL_FROM_JPTR, LOOP_OVER_TERMS_FROM_JPTR, ADD_,
// DROP_TERMS, AS_PICKDS, AS_NEXTFACT, FLATTEN_INTERACTION.
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
  const JsonNode& request;  // the standard form: the definitions that names in the model may mean
  const VARIABLE_TABLE& variables;
  FACTOR_TABLE& factors;
  TERM_TABLE& terms;
  MODEL_INFO& info;
  bool data_read = false;  // the second pass, with all levels known: notes were given before
  std::int64_t units = 0;  // factor rows of the reserved factors; 0 where the model has none
  std::int64_t mu = 0;
  std::int64_t mv = 0;
};

/// One factor of a term before it has a row of its own; the fields from structure on are those of FACTOR_ROW.
struct COMPONENT {
  std::int64_t row = 0;   // the factor row that it stands for
  std::string name = {};  // as the user wrote it
  std::string structure = {};
  std::vector<double> init = {};
  std::vector<double> arguments = {};
  std::int64_t order = 0;
  std::int64_t second = 0;
  std::vector<double> dist = {};
  std::string matrix = {};
};

/// A factor of a term; several where it stands for several terms, one a level.
using ALTERNATIVES = std::vector<COMPONENT>;

/// ADD_FACTOR_ROW: adds a row to the factor table and gives its number, or that of a row of the same name and kind; copies and
/// rows of linked structures are always added.
std::int64_t ADD_FACTOR_ROW(ERROR_HANDLER& eh, MODEL_PARSER& parser, FACTOR_ROW row);
/// ADD_COMPONENT_ROWS: the consecutive factor rows of a term's components, copies where need be; gives the term's code.
std::int32_t ADD_COMPONENT_ROWS(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::vector<COMPONENT>& components);
/// ADD_ARGUMENT_FROM_JPTR: the component of an argument that stands for a variable, a factor or another call.
///   shown   the call as the user wrote it, for messages
COMPONENT ADD_ARGUMENT_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& function,
                                 std::string_view argument, const std::string& shown, Block block);

/// PARSE_MODEL_FORMULA_FROM_JPTR: reads one part of the model; its terms go to one block.
void PARSE_MODEL_FORMULA_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& part,
                                   Block block);
/// PARSE_RESIDUAL_FROM_JPTR: reads the residual part: a term row a section.
void PARSE_RESIDUAL_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& part);
/// LOOP_OVER_TERMS_FROM_JPTR: reads the terms of a list.
void LOOP_OVER_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& list, Block block);
/// DROP_TERMS: takes the terms that a dropped one stands for out of the table again.
///   part    index of the first term of its part
///   first   index of the first row that was read for the dropped term; these rows go as well
void DROP_TERMS(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::size_t part, std::size_t first);
/// ADD_TERM_FROM_JPTR: reads one element of a list into a term row, or into several where it expands.
void ADD_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_LINKED_TERMS_FROM_JPTR: reads the terms of str(), which share its structure.
void ADD_LINKED_TERMS_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_SPECIAL_TERM_FROM_JPTR: the component of a plain name: a variable, a reserved factor or a defined one.
COMPONENT ADD_SPECIAL_TERM_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node);
/// ADD_FUNCTION_FROM_JPTR: the component of a call, several for a call that expands to several terms.
ALTERNATIVES ADD_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_CONDITION_FROM_JPTR: the components of at() or sat(), one a level.
ALTERNATIVES ADD_CONDITION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, Block block);
/// ADD_VARIANCE_FUNCTION_FROM_JPTR: the components of a call that names a structure.
ALTERNATIVES ADD_VARIANCE_FUNCTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node,
                                             Block block);
/// ADD_INTERACTION_FROM_JPTR: the components of an interaction in their order, a list for each term it expands to.
std::vector<std::vector<COMPONENT>> ADD_INTERACTION_FROM_JPTR(ERROR_HANDLER& eh, MODEL_PARSER& parser,
                                                              const JsonNode& node, Block block);
/// FLATTEN_INTERACTION: the elements of an interaction, those of interactions within it in their place.
void FLATTEN_INTERACTION(ERROR_HANDLER& eh, const JsonNode& interaction, std::vector<const JsonNode*>& out,
                         std::int64_t depth = 0);
/// AS_PICKDS: checks the text of a plain name that is none of the factors; complains of what can be no name at all.
void AS_PICKDS(ERROR_HANDLER& eh, const MODEL_PARSER& parser, const std::string& name);

/// The name that output shows for a term node.
std::string shown_name(const MODEL_PARSER& parser, const JsonNode& node);
/// The names of components joined by the interaction symbol.
std::string joined_name(const MODEL_PARSER& parser, const std::vector<COMPONENT>& components);

}  // namespace tolvan
