#include "data/field_map.h"

#include "base/text.h"

namespace tolvan {

void L_PREPARE_DATA_REORDER(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, FIELD_MAP& map)
{
  const Frame here{eh, __func__};
  constexpr std::int64_t most_fields = 10000000;
  map = {};
  map.next_variable.assign(variables.rows.size(), no_variable);
  for (std::size_t v = variables.rows.size(); v-- > 0;) {  // backwards: each goes in front
    const VARIABLE& variable = variables.rows[v];
    if (variable.column == 0) continue;
    if (variable.column > most_fields) {
      eh.error(text("variable ", variable.name, " can not be field ", variable.column, " of a data file"));
      return;
    }
    const auto field = static_cast<std::size_t>(variable.column - 1);
    if (field >= map.first_variable.size()) map.first_variable.resize(field + 1, no_variable);
    map.next_variable[v] = map.first_variable[field];
    map.first_variable[field] = v;
  }
}

}  // namespace tolvan
