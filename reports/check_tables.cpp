#include "reports/check_tables.h"

#include <string>
#include <vector>

namespace tolvan {

namespace {

std::string_view type_word(const VARIABLE& variable)
{
  return variable.is_factor() ? "factor" : "variate";
}

std::string_view part_word(Block block)
{
  switch (block) {
    case Block::response:
      return "response";
    case Block::fixed:
      return "fixed";
    case Block::random:
      return "random";
    case Block::sparse:
      return "sparse";
    case Block::residual:
      return "residual";
  }
  return "";
}

NewColumn text_column(const char* name, const char* heading)
{
  return {
      .type = ColumnType::string, .name = name, .heading = heading, .format = "A", .justify = Justify::left};
}

NewColumn count_column(const char* name, const char* heading)
{
  return {.type = ColumnType::integer, .name = name, .heading = heading, .format = "I10"};
}

NewColumn real_column(const char* name, const char* heading)
{
  return {.name = name, .heading = heading, .format = "G14.6", .display_missing = false};
}

/// L_NEW_TABLE: registers a table with its columns; null after a failure.
OUTPUT_TABLE* L_NEW_TABLE(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                          std::int64_t rows, const std::vector<NewColumn>& columns)
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, name);
  if (eh.terminate()) return nullptr;
  OUTPUT_TABLE& t = store.table(id);
  for (const NewColumn& column : columns) OTT_ADD_COLUMN(eh, t, column);
  OTT_ALLOC_DATA_STORES(eh, t, rows);
  return eh.terminate() ? nullptr : &t;
}

/// L_STORE_LEVEL_COUNTS: registers TABLE_LEVEL_COUNTS.
void L_STORE_LEVEL_COUNTS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_SUMMARY& summary,
                          OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<std::string> variable, level;
  std::vector<std::int64_t> count;
  for (std::size_t v = 0; v < summary.size(); ++v) {
    const std::vector<std::int64_t>& counts = summary[v].level_counts;
    for (std::size_t l = 0; l < counts.size(); ++l) {
      variable.push_back(variables.rows[v].name);
      level.push_back(GET_LEVEL_NAME(eh, variables.rows[v], static_cast<std::int64_t>(l) + 1));
      if (eh.terminate()) return;
      count.push_back(counts[l]);
    }
  }
  if (count.empty()) return;
  OUTPUT_TABLE* t = L_NEW_TABLE(
      eh, store, "TABLE_LEVEL_COUNTS", static_cast<std::int64_t>(count.size()),
      {text_column("VARIABLE", "Variable"), text_column("LEVEL", "Level"), count_column("COUNT", "Count")});
  if (t == nullptr) return;
  OTT_SET_COLUMN_STRING(eh, *t, 1, variable);
  OTT_SET_COLUMN_STRING(eh, *t, 2, level);
  OTT_SET_COLUMN_INTEGER(eh, *t, 3, count);
}

}  // namespace

void STORE_DATA_SUMMARY_TABLES(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables,
                               const DATA_SUMMARY& summary, std::int64_t records, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<std::string> name, type;
  std::vector<std::int64_t> levels, missing, zeros;
  std::vector<double> mean, minimum, maximum;
  for (std::size_t v = 0; v < summary.size(); ++v) {
    const VARIABLE& variable = variables.rows[v];
    const VARIABLE_SUMMARY& s = summary[v];
    const bool has_range = !variable.is_factor() && s.records > s.missing;
    name.push_back(variable.name);
    type.emplace_back(type_word(variable));
    levels.push_back(variable.is_factor() ? variable.levels : 0);
    missing.push_back(s.missing);
    zeros.push_back(s.zeros);
    mean.push_back(has_range ? s.mean : no_value);
    minimum.push_back(has_range ? s.minimum : no_value);
    maximum.push_back(has_range ? s.maximum : no_value);
  }
  OUTPUT_TABLE* t = L_NEW_TABLE(
      eh, store, "TABLE_DATA_SUMMARY", static_cast<std::int64_t>(name.size()),
      {text_column("VARIABLE", "Variable"), text_column("TYPE", "Type"), count_column("LEVELS", "Levels"),
       count_column("MISSING", "Missing"), count_column("ZEROS", "Zeros"), real_column("MEAN", "Mean"),
       real_column("MINIMUM", "Minimum"), real_column("MAXIMUM", "Maximum")});
  if (t == nullptr) return;
  OTT_SET_COLUMN_STRING(eh, *t, 1, name);
  OTT_SET_COLUMN_STRING(eh, *t, 2, type);
  OTT_SET_COLUMN_INTEGER(eh, *t, 3, levels);
  OTT_SET_COLUMN_INTEGER(eh, *t, 4, missing);
  OTT_SET_COLUMN_INTEGER(eh, *t, 5, zeros);
  OTT_SET_COLUMN_REAL_WP(eh, *t, 6, mean);
  OTT_SET_COLUMN_REAL_WP(eh, *t, 7, minimum);
  OTT_SET_COLUMN_REAL_WP(eh, *t, 8, maximum);
  L_STORE_LEVEL_COUNTS(eh, variables, summary, store);
  if (eh.terminate()) return;
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_DATA_RECORDS", records);
}

void STORE_TERMS_TABLE(ERROR_HANDLER& eh, const TERM_TABLE& terms, const DESIGN_MTX& design,
                       OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<std::string> name, part;
  std::vector<std::int64_t> equations;
  for (const TERM_ROW& term : terms.rows) {
    if (term.dropped) continue;
    name.push_back(term.name);
    part.emplace_back(part_word(term.block));
    equations.push_back(has_equations(term) ? term.equations : 0);
  }
  OUTPUT_TABLE* t = L_NEW_TABLE(eh, store, "TABLE_TERMS", static_cast<std::int64_t>(name.size()),
                                {text_column("TERM", "Model_Term"), text_column("PART", "Part"),
                                 count_column("EQUATIONS", "Equations")});
  if (t == nullptr) return;
  OTT_SET_COLUMN_STRING(eh, *t, 1, name);
  OTT_SET_COLUMN_STRING(eh, *t, 2, part);
  OTT_SET_COLUMN_INTEGER(eh, *t, 3, equations);
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_ANALYSIS_RECORDS", design.rows());
}

}  // namespace tolvan
