// Tables that several tests use.
#pragma once

#include <gtest/gtest.h>

#include "api/table_store.h"

namespace tolvan {

/// Every facet at once: three column types in mixed order, cut-offs, missing values, a cell never set,
/// labels, inserts.
inline OUTPUT_TABLE rich_table()
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE t;
  t.name = "TABLE_RICH";
  OTT_ADD_TITLE(eh, t, "Tests of \"fixed\" terms");
  OTT_ADD_TITLE(eh, t, "continued \\ here", TitleType::continuation);
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "SOURCE",
                  .heading = "Source",
                  .format = "A",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "DF", .heading = "NumDF", .format = "I6"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::real,
                  .name = "F",
                  .heading = "F-value",
                  .format = "F9.2",
                  .display_missing = false});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::real,
                  .name = "P",
                  .heading = "P",
                  .format = "F7.3",
                  .cutoff = "<0.001",
                  .cutoff_label = "<.001"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "FLAG",
                  .heading = "",
                  .format = "A1",
                  .justify = Justify::center});
  OTT_ADD_COLUMN(
      eh, t,
      {.type = ColumnType::integer, .name = "PC", .heading = "%", .format = "I4", .display_missing = false});
  OTT_ADD_SPANNING_LABEL(eh, t, 3, 4, "Wald test");
  const auto row = [&](std::string_view source, std::int64_t df, double f, double p, std::string_view flag,
                       std::int64_t pc) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_STRING_VALUES(eh, t, {source, flag});
    OTT_SET_INTEGER_VALUES(eh, t, {df, pc});
    OTT_SET_REAL_VALUES(eh, t, {f});
    OTT_SET_REAL_VALUES(eh, t, {p});
  };
  row("mu", 1, 245.136, 1e-9, "A", 3);
  row("variety", 2, 1.5, 0.272, "", not_given);
  row("nitro:variété", not_given, no_value, no_value, "*", -12);
  OTT_NEXT_ROW(eh, t);
  OTT_SET_STRING_VALUES(eh, t, {"last"});
  OTT_INSERT_TEXT(eh, t, "below a block", 3);
  OTT_INSERT_TEXT(eh, t, "the end");
  OTT_INSERT_TEXT(eh, t, "and more", 3);
  OTT_ADD_FOOTNOTE(eh, t, "a footnote");
  OTT_ADD_FOOTNOTE(eh, t, "careful", TitleType::warning);
  EXPECT_EQ(eh.count(), 0);
  EXPECT_TRUE(eh.stack().entries.empty());
  return t;
}

/// A packed matrix of an order, its elements 1.5, 2.5, ...
inline OUTPUT_TABLE packed_table(std::int64_t order)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE t;
  t.name = "TABLE_VARVAR";
  t.type = TableType::packed_sym_mtx;
  OTT_ADD_COLUMN(eh, t, {.name = "VALUES", .heading = "SED(PV)", .format = "F9.1"});
  std::vector<double> values;
  for (std::int64_t k = 1; k <= order * (order + 1) / 2; ++k) values.push_back(static_cast<double>(k) + 0.5);
  OTT_ALLOC_DATA_STORES(eh, t, static_cast<std::int64_t>(values.size()));
  OTT_SET_COLUMN_REAL_WP(eh, t, 1, values);
  EXPECT_EQ(eh.count(), 0);
  return t;
}

/// A sparse matrix of three elements.
inline OUTPUT_TABLE sparse_table()
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE t;
  t.name = "TABLE_AINV_A";
  t.type = TableType::sparse_mtx;
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "ROWID"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "COLID"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "VALUES"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "NXT_LOC"});
  OTT_ALLOC_DATA_STORES(eh, t, 3);
  OTT_SET_COLUMN_INTEGER(eh, t, 1, std::vector<std::int64_t>{1, 2, 2});
  OTT_SET_COLUMN_INTEGER(eh, t, 2, std::vector<std::int64_t>{1, 1, 2});
  OTT_SET_COLUMN_REAL_WP(eh, t, 3, std::vector<double>{1.0, -0.5, 1.25});
  OTT_SET_COLUMN_INTEGER(eh, t, 4, std::vector<std::int64_t>{2, 3, 0});
  EXPECT_EQ(eh.count(), 0);
  return t;
}

/// The one message that a handler should hold, checked for its code and that it terminates.
inline std::string only_message(const ERROR_HANDLER& eh, Etype type, Ecode code)
{
  EXPECT_EQ(eh.count(), 1);
  EXPECT_TRUE(eh.terminate());
  EXPECT_TRUE(eh.stack().entries.empty());
  if (eh.count() != 1) return {};
  const ERROR_MESSAGE& m = eh.messages().front();
  EXPECT_EQ(m.etype, type) << m.message.value_or("");
  EXPECT_EQ(m.ecode, code) << m.message.value_or("");
  return m.message.value_or("");
}

}  // namespace tolvan
