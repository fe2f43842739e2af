// Records from a file into the store.  Routines: L_PREPARE_INTAKE, TAKE_RECORD.
#include "data/record_intake.h"

#include "base/text.h"
#include "data/transform_record.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_records_told = 10;
constexpr std::size_t most_values_told = 20;

/// L_TELL_RECORD: the echo of a record as it was read.
void L_TELL_RECORD(ERROR_HANDLER& eh, const RECORD_INTAKE& intake, std::string_view source)
{
  const Frame here{eh, __func__};
  eh.note(
      text("record ", intake.records, " of ", intake.keys.name, source.empty() ? "" : ": ", excerpt(source)));
  std::string values = "read as";
  for (std::size_t v = 0; v < intake.row.size() && v < most_values_told; ++v) {
    values += is_no_value(intake.row[v]) ? std::string(" NA") : text(" ", intake.row[v]);
  }
  eh.continuation(values);
}

}  // namespace

void L_PREPARE_INTAKE(ERROR_HANDLER& eh, RECORD_INTAKE& intake)
{
  const Frame here{eh, __func__};
  VARIABLE_TABLE& variables = intake.values.variables;
  intake.row.assign(variables.rows.size(), no_value);
  L_CALCULATE_LREAD(eh, 0, variables);
  if (eh.terminate()) return;
  L_PREPARE_DATA_REORDER(eh, variables, intake.fields);
  if (eh.terminate()) return;
  L_PREPARE_SELECTION(eh, intake.keys, variables, intake.selection);
  if (eh.terminate()) return;
  // The field of the selection is read even if no variable is.
  auto& first = intake.fields.first_variable;
  const std::size_t field = intake.selection.field;
  if (field != no_variable && field >= first.size()) first.resize(field + 1, no_variable);
}

void TAKE_RECORD(ERROR_HANDLER& eh, RECORD_INTAKE& intake, std::string_view source)
{
  const Frame here{eh, __func__};
  ++intake.records;
  if (intake.keys.print && intake.records <= most_records_told) L_TELL_RECORD(eh, intake, source);
  VARIABLE_TABLE& variables = intake.values.variables;
  if (!AIDTRN(eh, variables, intake.values.coding, intake.records, intake.row)) return;
  if (!intake.kept) return;
  SELECTION& selection = intake.selection;
  if (selection.variable != no_variable &&
      !selected(selection, variables, intake.values.coding, intake.row[selection.variable])) {
    return;
  }
  DST_WRITE_ROW(eh, intake.store, intake.row);
}

}  // namespace tolvan
