// Names that the request defines beside the model: groups of variables, contrasts, covariates in files, knots.
// Routines: ADD_GROUP, READ_KNOTS, HANDLE_; ADD_DEFINED_FACTOR of model/design_functions.h.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "model/parse_terms.h"

namespace tolvan {

/// ADD_GROUP: the row of a group of variables, or of a single variable as a group of its own; 0 for any other name.
std::int64_t ADD_GROUP(ERROR_HANDLER& eh, MODEL_PARSER& parser, std::string_view name);

/// READ_KNOTS: appends the knots that "spline", or else the option "knot_points", gives for a variable; nothing without such.
void READ_KNOTS(ERROR_HANDLER& eh, const MODEL_PARSER& parser, std::string_view variable, std::vector<double>& knots);

/// HANDLE_SPLINE: checks that each entry of "spline" gives knots for a variable that there is.
void HANDLE_SPLINE(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables);
/// HANDLE_CONTRAST_SUBGROUP_GROUP: checks that each entry of "contrast" has a name, and values for the levels of a factor.
void HANDLE_CONTRAST_SUBGROUP_GROUP(ERROR_HANDLER& eh, const JsonNode& request, const VARIABLE_TABLE& variables);

/// The entry of a name in a list of definitions ("contrast", "mbf"), an object or an array under the key; null without one.
const JsonNode* find_definition(const JsonNode& request, std::string_view key, std::string_view name);

}  // namespace tolvan
