// The columns of a table, with the words of all types: OTT_ADD_COLUMN.
#include <array>
#include <cmath>

#include "api/table.h"
#include "base/text.h"

namespace tolvan {

namespace {

template <class Type>
struct Word {
  Type type;
  std::string_view name;
};
template <class Type>
Word(Type, const char*) -> Word<Type>;

constexpr std::array table_types = {
    Word{TableType::unknown, "unknown"},       Word{TableType::table, "table"},
    Word{TableType::sparse_mtx, "sparse_mtx"}, Word{TableType::packed_sym_mtx, "packed_sym_mtx"},
    Word{TableType::full_mtx, "full_mtx"},
};

constexpr std::array column_types = {
    Word{ColumnType::unknown, "unknown"}, Word{ColumnType::integer, "integer"},
    Word{ColumnType::real, "real"},       Word{ColumnType::string, "string"},
    Word{ColumnType::logical, "logical"}, Word{ColumnType::json, "json"},
};

constexpr std::array title_types = {
    Word{TitleType::unknown, "unknown"},
    Word{TitleType::info, "info"},
    Word{TitleType::notice, "notice"},
    Word{TitleType::note, "note"},
    Word{TitleType::continuation, "continuation"},
    Word{TitleType::warning, "warning"},
    Word{TitleType::sed, "sed"},
};

struct CutoffOperator {
  std::string_view sign;
  CutoffType type;
};
constexpr std::array cutoff_operators = {
    // the longer ones first
    CutoffOperator{">=", CutoffType::greater_than_or_equal_to},
    CutoffOperator{"<=", CutoffType::less_than_or_equal_to},
    CutoffOperator{">", CutoffType::greater_than},
    CutoffOperator{"<", CutoffType::less_than},
};

template <class Type, std::size_t n>
std::string_view name_of(const std::array<Word<Type>, n>& words, Type type)
{
  for (const auto& word : words) {
    if (word.type == type) return word.name;
  }
  return "unknown";
}

template <class Type, std::size_t n>
Type type_of(const std::array<Word<Type>, n>& words, std::string_view name)
{
  for (const auto& word : words) {
    if (word.name == name) return word.type;
  }
  return Type::unknown;
}

/// L_SET_CUTOFF: reads a cut-off such as ">=0.5"; an empty text is none; false if it can not be read.
bool L_SET_CUTOFF(ERROR_HANDLER& eh, INDIVIDUAL_COLUMN_INFO& column, std::string_view cutoff)
{
  const Frame here{eh, __func__};
  const std::string_view given = trim(cutoff);
  if (given.empty()) return true;
  for (const auto& [sign, type] : cutoff_operators) {
    if (!given.starts_with(sign)) continue;
    double value = 0.0;
    if (!read_real(trim(given.substr(sign.size())), value) || !std::isfinite(value)) break;
    column.cutoff_type = type;
    column.cutoff_val = value;
    return true;
  }
  eh.error(text(cutoff, " is an invalid cutoff"), Ecode::invalid_syntax);
  return false;
}

}  // namespace

std::string_view table_type_name(TableType type)
{
  return name_of(table_types, type);
}
std::string_view column_type_name(ColumnType type)
{
  return name_of(column_types, type);
}
std::string_view title_type_name(TitleType type)
{
  return name_of(title_types, type);
}
TableType table_type_of(std::string_view name)
{
  return type_of(table_types, name);
}
ColumnType column_type_of(std::string_view name)
{
  return type_of(column_types, name);
}
TitleType title_type_of(std::string_view name)
{
  return type_of(title_types, name);
}

std::int64_t OUTPUT_TABLE::find_column(std::string_view wanted) const
{
  const auto position_of = [&](std::string_view s) -> std::int64_t {
    s = rtrim(s);
    for (std::int64_t k = 1; k <= ncols(); ++k) {
      if (equal_nocase(rtrim(column(k).name), s)) return k;
    }
    return 0;
  };
  const std::int64_t found = position_of(wanted);
  if (found == 0 && equal_nocase(rtrim(wanted), "PCH")) return position_of("PC");
  return found;
}

std::int64_t OTT_ADD_COLUMN(ERROR_HANDLER& eh, OUTPUT_TABLE& table, const NewColumn& given)
{
  const Frame here{eh, __func__};
  if (given.type != ColumnType::integer && given.type != ColumnType::real &&
      given.type != ColumnType::string) {
    eh.internal(text(column_type_name(given.type), " is an invalid column type"));
    return 0;
  }
  INDIVIDUAL_COLUMN_INFO column{.name = given.name,
                                .heading = given.heading,
                                .format = given.format,
                                .type = given.type,
                                .justify = given.justify,
                                .cutoff_label = given.cutoff_label,
                                .display_missing = given.display_missing};
  if (!L_SET_CUTOFF(eh, column, given.cutoff)) return 0;

  // The room first, so that a failed allocation leaves the table as it was.
  COLUMN_INFO& info = table.column_info;
  const auto rows = static_cast<std::size_t>(table.alloc_nrows);
  info.columns.reserve(info.columns.size() + 1);
  switch (given.type) {
    case ColumnType::integer:
      if (table.allocated) table.integer_col.emplace_back(rows, not_given);
      column.position = ++info.ncols_integer;
      break;
    case ColumnType::real:
      if (table.allocated) table.real_col.emplace_back(rows, no_value);
      column.position = ++info.ncols_real;
      break;
    default:
      if (table.allocated) table.string_col.emplace_back(rows);
      column.position = ++info.ncols_string;
      break;
  }
  info.columns.push_back(std::move(column));
  return info.ncols();
}

}  // namespace tolvan
