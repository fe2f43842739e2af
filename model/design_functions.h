// Design functions: calls that make a factor or covariates of their own, from lin() to uni().
// Routines: ADD_DESIGN_FUNCTION, ADD_DEFINED_FACTOR, ADD_DISTINCT_FACTOR.
#pragma once

#include <string>
#include <string_view>

#include "model/parse_terms.h"

namespace tolvan {

/// True for the functions that ADD_DESIGN_FUNCTION reads; at() and sat() are read with the terms themselves.
bool is_design_function(std::string_view name);

/// ADD_DESIGN_FUNCTION: adds the derived factor row of a design function and gives it as a component.
///   node    the term node with its "function", arguments in declared order
///   shown   the call as the user wrote it, for the row's name and for messages
/// An argument that stands for a variable may be a call itself: it is read with ADD_ARGUMENT_FROM_JPTR.  The row is
/// added with ADD_FACTOR_ROW, which gives an earlier row of the same name instead of a second one.  Level counts that only
/// the data tell are left 0; SET_TERM_EQUATIONS hands those of a row on to its copies.
COMPONENT ADD_DESIGN_FUNCTION(ERROR_HANDLER& eh, MODEL_PARSER& parser, const JsonNode& node, const std::string& shown,
                              Block block);

/// ADD_DEFINED_FACTOR: the factor row of a plain name that the request defines outside the data, by "mbf", "contrast" or a
/// group of variables; 0 when it defines none.
std::int64_t ADD_DEFINED_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, const std::string& name);

/// ADD_DISTINCT_FACTOR: the row of fac(x), or of fac(x,y) where y is not 0: a level for each distinct value or pair.
///   x, y   factor rows
std::int64_t ADD_DISTINCT_FACTOR(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::int64_t x, std::int64_t y);

}  // namespace tolvan
