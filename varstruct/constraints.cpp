// Constraint letters and equality groups of a request.  Routine: GET_GMCSTR.
#include "varstruct/constraints.h"

#include "base/text.h"

namespace tolvan {

std::optional<Constraint> constraint_of(char letter)
{
  const std::size_t code = constraint_letters.find(letter);
  if (code == std::string_view::npos) return {};
  return static_cast<Constraint>(code);
}

void GET_GMCSTR(ERROR_HANDLER& eh, const JsonNode* node, Constraint& code)
{
  const Frame here{eh, __func__};
  code = Constraint::P;
  if (node == nullptr || node->is(JsonType::null)) return;
  const std::string& letter = node->text();
  if (const auto found = letter.size() == 1 ? constraint_of(letter.front()) : std::nullopt) {
    code = *found;
    return;
  }
  eh.error(text(node->is(JsonType::string) ? letter : json_text(*node),
                " is not a valid value for a constraint code"));
}

ConstraintString read_constraints(std::string_view letters, std::int64_t parameters,
                                  std::vector<Constraint>& codes)
{
  codes.clear();
  for (const char c : letters) {
    const auto code = constraint_of(c);
    if (!code) return ConstraintString::illegal;
    codes.push_back(*code);
  }
  if (codes.size() == 1) codes.resize(static_cast<std::size_t>(parameters), codes.front());
  return static_cast<std::int64_t>(codes.size()) == parameters ? ConstraintString::good
                                                               : ConstraintString::wrong_count;
}

bool read_equality_groups(std::string_view letters, std::vector<std::int64_t>& groups)
{
  groups.clear();
  bool run = false;
  for (const char c : letters.substr(0, letters.find(' '))) {
    if (c == ':') {
      if (groups.empty() || run) return false;
      run = true;
      continue;
    }
    std::int64_t group = 0;
    if (c >= '0' && c <= '9') {
      group = c - '0';
    } else if (c >= 'A' && c <= 'Z') {
      group = c - '@';  // A is 1
    } else {
      return false;
    }
    if (run) {
      if (group < groups.back()) return false;
      for (std::int64_t g = groups.back() + 1; g < group; ++g) groups.push_back(g);
      if (group > groups.back()) groups.push_back(group);
      run = false;
    } else {
      groups.push_back(group);
    }
  }
  return !run;
}

}  // namespace tolvan
