// Tables whose columns are taken over whole from what made them.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "api/error_handler.h"
#include "api/table_store.h"

namespace tolvan {

/// Takes values over as the store of a column, numbered from 0 among those of its type.
template <class T>
void take(OUTPUT_TABLE& table, std::vector<std::vector<T>>& store, std::size_t column, std::vector<T>& values)
{
  store.resize(std::max(store.size(), column + 1));
  table.nrows = table.alloc_nrows = static_cast<std::int64_t>(values.size());
  table.allocated = true;
  store[column] = std::move(values);
}

/// A table with its columns, without rows.
inline OUTPUT_TABLE& register_table(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& tables, std::string_view name,
                                    std::initializer_list<NewColumn> columns, TableType type = TableType::table)
{
  OUTPUT_TABLE& table = tables.table(OTST_REGISTER_TABLE(eh, tables, name, type));
  for (const NewColumn& each : columns) OTT_ADD_COLUMN(eh, table, each);
  return table;
}

}  // namespace tolvan
