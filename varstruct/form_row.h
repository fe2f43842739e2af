// What the models and the driver share while a row is formed: its parameters, its pieces, its step-down, its
// messages. Plain functions.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "varstruct/component_matrix.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The parameter k, from 0, of a row.
inline VARIANCE_PARAMETER& parameter(FORM_CONTEXT& context, std::int64_t k)
{
  return context.model.parameters[static_cast<std::size_t>(context.row.first + k)];
}

/// Types the first count parameters of the row as correlations.
void mark_correlations(FORM_CONTEXT& context, std::int64_t count);

/// Where the independent pieces of a row begin, from 0, with its size at the end: {0, n} for one piece.
std::vector<std::int64_t> pieces_of(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model);

/// Warns, once, when the pieces of a row are so many that the data can hardly be in order.
void check_pieces(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces);

/// Takes one parameter off the model of a row of one level: order 1 less, and the identity when none is left.
/// The parameter stays in the table with value 0 and code F.  `context.row` is the live row, which begins behind it.
void step_down(FORM_CONTEXT& context);

/// A variance below 1e-18 becomes 1e-18, and its constraint P.
void floor_variance(VARIANCE_PARAMETER& variance);

/// False, with the message, when the parameter count of a row does not fit its model.
bool check_row_size(ERROR_HANDLER& eh, const STRUCTURE_ROW& row);
/// The same for a model that knows its count; -1 is never right.
bool check_row_size(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, std::int64_t expected);

/// "failed to invert the <what> (leading minor order=<k>)", a warning: the fit may try again
/// with a shorter step; gives in_handler.
Formed failed_inversion(ERROR_HANDLER& eh, std::string_view what, std::int64_t leading_minor);

}  // namespace tolvan
