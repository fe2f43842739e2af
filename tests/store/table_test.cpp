// Building tables: how rows and columns fill, what is refused and with which words; the string array.
#include "api/table.h"

#include "table_samples.h"

namespace tolvan {
namespace {

TEST(TableBuild, RowsFillTypeByTypeAndStoresGrow)
{
  const OUTPUT_TABLE t = rich_table();
  EXPECT_EQ(t.nrows, 4);
  EXPECT_EQ(t.lrv(), 2);
  EXPECT_EQ(t.liv(), 2);
  EXPECT_EQ(t.lcv(), 2);
  EXPECT_EQ(t.string(3, 5), "*");
  EXPECT_EQ(t.integer(1, 6), 3);
  EXPECT_EQ(t.real(2, 4), 0.272);
  // Never set.
  EXPECT_EQ(t.integer(4, 2), not_given);
  EXPECT_EQ(t.real(4, 3), no_value);
  EXPECT_EQ(t.string(4, 5), "");

  ERROR_HANDLER eh;
  OUTPUT_TABLE long_one;
  OTT_ADD_COLUMN(eh, long_one, {.type = ColumnType::integer, .name = "I"});
  for (std::int64_t i = 1; i <= 1000; ++i) {
    OTT_NEXT_ROW(eh, long_one);
    OTT_SET_INTEGER_VALUES(eh, long_one, {i});
  }
  // A column that comes late finds the rows there, and takes a whole column.
  OTT_ADD_COLUMN(eh, long_one, {.type = ColumnType::real, .name = "X"});
  EXPECT_EQ(long_one.real(1000, 2), no_value);
  OTT_SET_COLUMN_REAL_WP(eh, long_one, 2, std::vector<double>(1000, 0.5));
  EXPECT_EQ(long_one.real(1000, 2), 0.5);
  EXPECT_EQ(long_one.integer(1000, 1), 1000);
  OTT_RESIZE(eh, long_one, 10);
  EXPECT_EQ(long_one.nrows, 10);
  OTT_NEXT_ROW(eh, long_one);
  EXPECT_EQ(long_one.nrows, 11);
  EXPECT_EQ(long_one.integer(10, 1), 10);
  EXPECT_EQ(long_one.integer(11, 1), not_given);
  EXPECT_EQ(eh.count(), 0);
}

TEST(TableBuild, ColumnsAreFoundInAnyCaseAndUnderTheirSecondName)
{
  OUTPUT_TABLE t = rich_table();
  EXPECT_EQ(t.find_column("source  "), 1);
  EXPECT_EQ(t.find_column("pch "), 6);
  EXPECT_EQ(t.find_column("pc"), 6);
  EXPECT_EQ(t.find_column(" SOURCE"), 0);
  EXPECT_EQ(t.find_column(""), 0);
}

TEST(TableBuild, CutoffsTryTwoCharactersFirst)
{
  const auto cutoff = [](std::string text) {
    ERROR_HANDLER eh;
    OUTPUT_TABLE t;
    OTT_ADD_COLUMN(eh, t, {.name = "P", .cutoff = std::move(text), .cutoff_label = "tiny"});
    EXPECT_EQ(eh.count(), 0);
    return std::pair(t.column(1).cutoff_type, t.column(1).cutoff_val);
  };
  EXPECT_EQ(cutoff(">=0.5"), std::pair(CutoffType::greater_than_or_equal_to, 0.5));
  EXPECT_EQ(cutoff("<=-1e-3"), std::pair(CutoffType::less_than_or_equal_to, -1e-3));
  EXPECT_EQ(cutoff(">2"), std::pair(CutoffType::greater_than, 2.0));
  EXPECT_EQ(cutoff(" < 0.001 "), std::pair(CutoffType::less_than, 0.001));
  EXPECT_EQ(cutoff(""), std::pair(CutoffType::none, 0.0));
  for (const char* bad : {"0.5", "=0.5", "<", ">=", "<>1", "<0.5x", "=>1", "<nan", ">inf", "<1 2"}) {
    ERROR_HANDLER eh;
    OUTPUT_TABLE t;
    EXPECT_EQ(OTT_ADD_COLUMN(eh, t, {.name = "P", .cutoff = bad}), 0);
    EXPECT_EQ(only_message(eh, Etype::error, Ecode::invalid_syntax),
              std::string(bad) + " is an invalid cutoff");
    EXPECT_EQ(t.ncols(), 0);
  }
}

// Each action on a table of two real columns, one integer and one string column with room for three rows, one
// row begun and filled, and the text it raises.
TEST(TableBuild, RefusalsHaveTheirWords)
{
  struct Case {
    std::string text;
    void (*act)(ERROR_HANDLER&, OUTPUT_TABLE&);
  };
  using T = OUTPUT_TABLE;
  using H = ERROR_HANDLER;
  const std::vector<double> four(4, 1.0);
  const Case cases[] = {
      {"logical is an invalid column type",
       [](H& eh, T& t) { OTT_ADD_COLUMN(eh, t, {.type = ColumnType::logical, .name = "L"}); }},
      {"unknown is an invalid column type",
       [](H& eh, T& t) { OTT_ADD_COLUMN(eh, t, {.type = static_cast<ColumnType>(17), .name = "L"}); }},
      {"table too small, alloc_nrows = 3, number of data points = 4",
       [](H& eh, T& t) { OTT_SET_COLUMN_REAL_WP(eh, t, 1, std::vector<double>(4)); }},
      {"table too small, ncols = 0, requested column = 1",
       [](H& eh, T&) {
         T empty;
         OTT_ADD_COLUMN(eh, empty, {.type = ColumnType::string, .name = "S"});
         OTT_SET_COLUMN_STRING(eh, empty, 1, std::vector<std::string>(1));
       }},
      {"5 is out of range",
       [](H& eh, T& t) { OTT_SET_COLUMN_INTEGER(eh, t, 5, std::vector<std::int64_t>(1)); }},
      {"0 is out of range",
       [](H& eh, T& t) { OTT_SET_COLUMN_INTEGER(eh, t, 0, std::vector<std::int64_t>(1)); }},
      {"2 is of the wrong type",
       [](H& eh, T& t) { OTT_SET_COLUMN_INTEGER(eh, t, 2, std::vector<std::int64_t>(1)); }},
      {"1 additional real values added for row 1 making 3 real columns in total, expected at most 2",
       [](H& eh, T& t) { OTT_SET_REAL_VALUES(eh, t, {3.0}); }},
      {"2 additional integer values added for row 1 making 3 integer columns in total, expected at most 1",
       [](H& eh, T& t) {
         OTT_SET_INTEGER_VALUES(eh, t, {1, 2});
       }},
      {"1 additional string values added for row 1 making 2 string columns in total, expected at most 1",
       [](H& eh, T& t) { OTT_SET_STRING_VALUES(eh, t, {"x"}); }},
      {"values added to table TABLE_X before its first row",
       [](H& eh, T& t) {
         OTT_ALLOC_DATA_STORES(eh, t, 3);
         OTT_SET_REAL_VALUES(eh, t, {1.0});
       }},
      {"table TABLE_X can not have -1 rows", [](H& eh, T& t) { OTT_RESIZE(eh, t, -1); }},
      {"a label can not span the columns 3 to 2",
       [](H& eh, T& t) { OTT_ADD_SPANNING_LABEL(eh, t, 3, 2, "l"); }},
      {"a line can not be inserted before row -4", [](H& eh, T& t) { OTT_INSERT_TEXT(eh, t, "l", -4); }},
  };
  for (const Case& c : cases) {
    ERROR_HANDLER eh;
    T t;
    t.name = "TABLE_X";
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "A"});
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "B"});
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "I"});
    OTT_ADD_COLUMN(eh, t, {.type = ColumnType::string, .name = "S"});
    OTT_ALLOC_DATA_STORES(eh, t, 3);
    OTT_NEXT_ROW(eh, t);
    OTT_SET_REAL_VALUES(eh, t, {1.0, 2.0});
    OTT_SET_INTEGER_VALUES(eh, t, {3});
    OTT_SET_STRING_VALUES(eh, t, {"s"});
    ASSERT_EQ(eh.count(), 0);
    c.act(eh, t);
    ASSERT_EQ(eh.count(), 1) << c.text;
    EXPECT_EQ(eh.messages().front().message, c.text);
    EXPECT_EQ(eh.messages().front().etype, Etype::internal) << c.text;
    EXPECT_TRUE(eh.terminate());
    EXPECT_TRUE(eh.stack().entries.empty());
  }
}

TEST(TableBuild, SizesBeyondMemoryAreRefusedBeforeTheyAreTried)
{
  ERROR_HANDLER eh;
  OUTPUT_TABLE t;
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::real, .name = "X"});
  OTT_ALLOC_DATA_STORES(eh, t, std::int64_t{1} << 61);
  ASSERT_EQ(eh.count(), 1);
  EXPECT_TRUE(eh.terminate());
  EXPECT_EQ(eh.messages().front().ecode, Ecode::alloc_fail);
  EXPECT_EQ(t.alloc_nrows, 0);
}

// A run that failed still fills, writes and prints what it has.
TEST(TableBuild, WorksOnWithAHandlerThatIsTerminated)
{
  ERROR_HANDLER eh;
  eh.error("the fit failed");
  OUTPUT_TABLE_STORE store;
  OUTPUT_TABLE& t = store.table(OTST_REGISTER_TABLE(eh, store, "TABLE_T"));
  EXPECT_EQ(OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "N", .heading = "n", .cutoff = "<1"}),
            1);
  for (std::int64_t i = 1; i <= 40; ++i) {
    OTT_NEXT_ROW(eh, t);
    OTT_SET_INTEGER_VALUES(eh, t, {i});
  }
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_S", 1);
  EXPECT_EQ(t.nrows, 40);
  EXPECT_EQ(t.integer(40, 1), 40);
  EXPECT_NE(OTST_TO_JSTR(eh, store).find("SCALAR_S"), std::string::npos);
  std::string out;
  OTT_PRETTY_PRINT(eh, t, out);
  EXPECT_FALSE(out.empty());
  EXPECT_EQ(eh.count(), 1);
}

TEST(StringArray, AddsAppendsRemovesJoinsAndFinds)
{
  ERROR_HANDLER eh;
  STRING_ARRAY a;
  EXPECT_EQ(SAT_SQUASH(eh, a), "");
  for (const char* s : {"one", "", "three"}) SAT_ADD_STRING(eh, a, s);
  EXPECT_EQ(SAT_SQUASH(eh, a), "one  three");
  SAT_APPEND(eh, a, a);
  EXPECT_EQ(a.size(), 6);
  EXPECT_EQ(SAT_LOCATION(eh, a, "three"), 3);
  EXPECT_EQ(SAT_LOCATION(eh, a, "four"), 0);
  SAT_REMOVE(eh, a, 1);
  EXPECT_EQ(SAT_LOCATION(eh, a, "three"), 2);
  SAT_RESIZE(eh, a, 2);
  SAT_RESIZE(eh, a, 3);
  EXPECT_EQ(a.elements, (std::vector<std::string>{"", "three", ""}));
  EXPECT_EQ(eh.count(), 0);
  SAT_REMOVE(eh, a, 4);
  EXPECT_EQ(only_message(eh, Etype::internal, eh.messages().front().ecode),
            "string 4 can not be removed, number of strings = 3");
}

}  // namespace
}  // namespace tolvan
