// Where the records of a residual of two dimensions lie.  Routine: STORE_FIELD_TABLES.
#include "base/text.h"
#include "reports/result_tables.h"

namespace tolvan {

namespace {

constexpr std::int64_t most_cells = 40000;  // of a field that anybody would look at
constexpr std::int64_t most_fields = 100;

/// Whether a section is a product of two factors, neither of them that of the units.
bool is_field(const FACTOR_TABLE& factors, const VARIANCE_MODEL& model, const RESIDUAL_SECTION& section)
{
  if (section.rows != 2 || section.records > most_cells) return false;
  for (std::int64_t r = section.first_row; r < section.first_row + 2; ++r) {
    const STRUCTURE_ROW& row = model.residual[static_cast<std::size_t>(r)];
    if (row.size < 2 || row.factor < 1 || row.factor > factors.count()) return false;
    const Reserved reserved = factors.row(factors.original(row.factor)).reserved;
    if (reserved != Reserved::none) return false;
  }
  return true;
}

}  // namespace

void STORE_FIELD_TABLES(ERROR_HANDLER& eh, const FACTOR_TABLE& factors, const DESIGN_MTX& design, const VARIANCE_MODEL& model,
                        OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::int64_t number = 0;
  for (const RESIDUAL_SECTION& section : model.sections) {
    if (!is_field(factors, model, section)) continue;
    const STRUCTURE_ROW& rows = model.residual[static_cast<std::size_t>(section.first_row)];
    const STRUCTURE_ROW& columns = model.residual[static_cast<std::size_t>(section.first_row + 1)];
    if (rows.size * columns.size != section.records || section.first_record + section.records > design.rows()) continue;
    if (++number > most_fields) return;
    const std::int64_t id = OTST_REGISTER_TABLE(eh, store, number == 1 ? "TABLE_FIELD" : text("TABLE_FIELD_", number));
    if (eh.terminate()) return;
    OUTPUT_TABLE& t = store.table(id);
    OTT_ADD_TITLE(eh, t, text("Field of ", section.name.empty() ? section.label : section.name));
    const auto name = [&](const STRUCTURE_ROW& row) {
      std::int64_t f = row.factor;
      while (factors.row(f).source > 0) f = factors.row(f).source;
      return factors.row(f).shown();
    };
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "RECORD", .heading = "Record", .format = "I9"});
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ROW", .heading = name(rows), .format = "I6"});
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "COLUMN", .heading = name(columns), .format = "I6"});
    OTT_ALLOC_DATA_STORES(eh, t, section.records);
    if (eh.terminate()) return;
    // The first dimension is the slowest.
    std::vector<std::int64_t> record, row, column;
    for (std::int64_t k = 0; k < section.records; ++k) {
      record.push_back(design.record[static_cast<std::size_t>(section.first_record + k)]);
      row.push_back(k / columns.size + 1);
      column.push_back(k % columns.size + 1);
    }
    OTT_SET_COLUMN_INTEGER(eh, t, 1, record);
    OTT_SET_COLUMN_INTEGER(eh, t, 2, row);
    OTT_SET_COLUMN_INTEGER(eh, t, 3, column);
  }
}

}  // namespace tolvan
