// Constraint letters and equality groups of a request.  Routine: GET_GMCSTR.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// The constraint of a letter; none for a character that is no constraint letter (lower case is not).
std::optional<Constraint> constraint_of(char letter);
/// The letter of a constraint.
inline char constraint_letter(Constraint c)
{
  return constraint_letters[static_cast<std::size_t>(c)];
}

/// GET_GMCSTR: reads one constraint letter from a node; an absent one (null) is P.
void GET_GMCSTR(ERROR_HANDLER& eh, const JsonNode* node, Constraint& code);

/// The constraints of a string: one letter a parameter, or one for all.
enum class ConstraintString { good, wrong_count, illegal };
ConstraintString read_constraints(std::string_view letters, std::int64_t parameters,
                                  std::vector<Constraint>& codes);

/// The equality groups of a string: a digit is its number, a capital its place in the alphabet; "2:5" runs
/// from 2 to 5; a blank ends the string.  False for an illegal string.
bool read_equality_groups(std::string_view letters, std::vector<std::int64_t>& groups);

}  // namespace tolvan
