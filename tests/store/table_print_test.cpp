// Tables as text, compared with texts that were read and approved line by line.
#include "api/table.h"
#include "table_samples.h"

namespace tolvan {
namespace {

std::string printed(const OUTPUT_TABLE& table, std::int64_t width = default_line_width)
{
  ERROR_HANDLER eh;
  std::string out = "\n";
  OTT_PRETTY_PRINT(eh, table, out, width);
  EXPECT_EQ(eh.count(), 0) << eh.EH_LAST_MESSAGE();
  EXPECT_TRUE(eh.stack().entries.empty());
  return out;
}

TEST(TablePrint, MixedTable)
{
  EXPECT_EQ(printed(rich_table()), R"(
Tests of "fixed" terms
continued \ here
                       --- Wald test ----
Source          NumDF    F-value        P        %
mu                  1     245.14    <.001  A     3
variety             2       1.50    0.272
below a block
and more
nitro:variété      NA                  NA  *   -12
last               NA                  NA
the end
a footnote
careful
)");
}

TEST(TablePrint, ContinuesInBlocks)
{
  EXPECT_EQ(printed(rich_table(), 30), R"(
Tests of "fixed" terms
continued \ here
Source          NumDF
mu                  1
variety             2
below a block
and more
nitro:variété      NA
last               NA
the end

               Wald test
Source           F-value
mu                245.14
variety             1.50
below a block
and more
nitro:variété
last
the end

               Wald test
Source                 P
mu                 <.001  A
variety            0.272
below a block
and more
nitro:variété         NA  *
last                  NA
the end

Source            %
mu                3
variety
below a block
and more
nitro:variété   -12
last
the end
a footnote
careful
)");
}

TEST(TablePrint, PackedMatrix)
{
  EXPECT_EQ(printed(packed_table(5), 40), R"(
1        1.5
2        2.5        3.5
3        4.5        5.5        6.5
4        7.5        8.5        9.5
        10.5
5       11.5       12.5       13.5
        14.5       15.5
)");
  EXPECT_EQ(printed(packed_table(10), 80).substr(0, 17), "\n 1        1.5\n 2");
  EXPECT_EQ(printed(packed_table(0)), "\n");
}

TEST(TablePrint, Transposed)
{
  OUTPUT_TABLE t = rich_table();
  t.transposed = true;
  EXPECT_EQ(printed(t, 70), R"(
Tests of "fixed" terms
continued \ here
Source              mu        variety  nitro:variété           last
NumDF                1              2             NA             NA
F-value         245.14           1.50
P                <.001          0.272             NA             NA
                     A                             *
%                    3                           -12
a footnote
careful
)");
}

TEST(TablePrint, WidthsComeFromFormatHeadingAndLongestText)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE t;
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::string,
                  .name = "S",
                  .heading = "Term",
                  .format = "A12",
                  .justify = Justify::left});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "G", .heading = "Gamma", .format = "G14.6"});
  OTT_ADD_COLUMN(
      eh, t, {.type = ColumnType::real, .name = "W", .heading = "Component Coefficients", .format = "f8.1"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "N", .heading = "", .format = "I3"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::integer, .name = "M", .heading = "centre", .justify = Justify::center});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "D"});  // no format, no heading
  OTT_ADD_SPANNING_LABEL(eh, t, 3, 5, "outer");
  OTT_ADD_SPANNING_LABEL(eh, t, 4, 4, "a long label over one");
  for (const double x : {214.477, 1e-7, -123456789.0}) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_STRING_VALUES(eh, t, {"blocks"});
    OTT_SET_REAL_VALUES(eh, t, {x, x, x});
    OTT_SET_INTEGER_VALUES(eh, t, {12345, 7});
  }
  EXPECT_EQ(eh.count(), 0);
  EXPECT_EQ(printed(t, 200), R"(
                              ------------------------ outer -------------------------
                                                      a long label over one
Term                   Gamma  Component Coefficients                          centre
blocks               214.477                   214.5                    ***      7            214.477
blocks          0.100000E-06                     0.0                    ***      7       0.100000E-06
blocks         -0.123457E+09                ********                    ***      7      -0.123457E+09
)");
}

TEST(TablePrint, TablesWithoutRowsOrColumns)
{
  OUTPUT_TABLE t;
  EXPECT_EQ(printed(t), "\n");
  ERROR_HANDLER eh;
  OTT_ADD_TITLE(eh, t, "Nothing here ");
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "X", .heading = "x", .format = "F6.1"});
  EXPECT_EQ(printed(t), "\nNothing here\n     x\n");
  t.transposed = true;
  EXPECT_EQ(printed(t), "\nNothing here\nx\n");
  EXPECT_EQ(printed(sparse_table(), 0), R"(
        1          1        1.00000          2
        2          1      -0.500000          3
        2          2        1.25000          0
)");
}

TEST(TablePrint, BrokenTablesAreReported)
{
  const auto message = [](OUTPUT_TABLE t, auto&& damage) {
    damage(t);
    ERROR_HANDLER eh;
    std::string out;
    OTT_PRETTY_PRINT(eh, t, out);
    EXPECT_EQ(out, "");
    return only_message(eh, Etype::internal, eh.messages().front().ecode);
  };
  const OUTPUT_TABLE rich = rich_table();
  EXPECT_EQ(message(rich, [](auto& t) { t.integer_col.clear(); }),
            "INTEGER_COL array is not allocated, but column DF is flagged as an integer");
  EXPECT_EQ(message(rich, [](auto& t) { t.real_col.clear(); }),
            "REAL_COL array is not allocated, but column F is flagged as a real");
  EXPECT_EQ(message(rich, [](auto& t) { t.string_col.clear(); }),
            "STRING_COL array is not allocated, but column SOURCE is flagged as a string");
  EXPECT_EQ(message(rich, [](auto& t) { t.real_col[1].resize(3); }),
            "column P has not been populated correctly");
  EXPECT_EQ(message(rich, [](auto& t) { t.column_info.columns[4].position = 3; }),
            "column FLAG has not been populated correctly");
  EXPECT_EQ(message(rich, [](auto& t) { t.column_info.columns[0].type = ColumnType::logical; }),
            "unknown column type: 4");
  EXPECT_EQ(message(rich, [](auto& t) { t.type = TableType::packed_sym_mtx; }),
            "was expecting only a single column in a packed matrix, ncols = 6");
  EXPECT_EQ(message(packed_table(3), [](auto& t) { t.nrows = 5; }),
            "number of rows does not tie up with a matrix of order 2, nrows = 5, expected number = 3");
}

TEST(TablePrint, WritesToAFile)
{
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  ERROR_HANDLER eh;
  OTT_PRETTY_PRINT(eh, packed_table(2), file);
  std::rewind(file);
  char read[100] = {};
  const std::size_t n = std::fread(read, 1, sizeof read - 1, file);
  EXPECT_EQ("\n" + std::string(read, n), printed(packed_table(2)));
  std::fclose(file);
}

}  // namespace
}  // namespace tolvan
