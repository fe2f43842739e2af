// The rules of variable names.  Routine: CHECK_VARIABLE_NAME_VALIDITY.
#include "base/text.h"
#include "data/variable_table.h"

namespace tolvan {

namespace {

constexpr std::size_t longest_name = 31;

bool is_letter(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// The first rule that a name breaks, as a message; empty when it breaks none.
std::string broken_rule(const COMMUNICATION& c, std::string_view name, bool allow_reserved)
{
  if (name.empty()) return "null string is not a valid name";
  if (name.size() > longest_name) {
    return text(name, " is invalid, variable names must be <= 31 characters long");
  }
  if (!is_letter(name.front())) return text(name, " is invalid, variable names must begin with a character");
  if (name.find_first_of(c.VARIABLE_NAME_INVALID_SYMBOLS) != std::string_view::npos) {
    return text(name, " is invalid, variable names must not contain any of the following symbols: ",
                c.VARIABLE_NAME_INVALID_SYMBOLS);
  }
  if (allow_reserved) return {};
  if (name == c.VARIABLE_NAME_MU || name == c.VARIABLE_NAME_MV || name == c.VARIABLE_NAME_UNITS ||
      name == c.VARIABLE_NAME_TRAIT) {
    return text(name, " is invalid, variable names may not be one of the following reserved words: ",
                c.VARIABLE_NAME_MU, ", ", c.VARIABLE_NAME_MV, ", ", c.VARIABLE_NAME_UNITS, " or ",
                c.VARIABLE_NAME_TRAIT);
  }
  return {};
}

}  // namespace

bool CHECK_VARIABLE_NAME_VALIDITY(ERROR_HANDLER& eh, const COMMUNICATION& communication,
                                  std::string_view name, bool allow_reserved, bool suppress)
{
  const Frame here{eh, __func__};
  const std::string complaint = broken_rule(communication, name, allow_reserved);
  if (complaint.empty()) return true;
  if (!suppress) eh.error(complaint);
  return false;
}

}  // namespace tolvan
