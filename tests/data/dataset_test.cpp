// Descriptions of datasets, their matrices, variables and levels.
#include <limits>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

constexpr std::string_view split_plot = R"({"dataset":{"name":"sp","number_of_observations":12,
  "storage_order":"so_row_major","variables":[
   {"name":"block","field_type":"vt_integer_factor_1_to_n","number_of_levels":2},
   {"name":"wplot","field_type":"vt_integer_factor_1_to_n","number_of_levels":3},
   {"name":"variety","field_type":"vt_string_factor","factor_labels":["gold","marv","vict"]},
   {"name":"nitro","field_type":"vt_integer_factor_1_to_n","number_of_levels":2},{"name":"y"}]},
  "model":{"response":"y","fixed":"variety*nitro","random":"block/wplot","residual":"units"}})";

/// Twelve plots: block, wplot, variety, nitro, y; by rows.
std::vector<double> split_plot_rows(std::int64_t surplus_rows = 0, std::int64_t surplus_columns = 0)
{
  std::vector<double> values;
  for (int i = 0; i < 12 + surplus_rows; ++i) {
    const double row[] = {1.0 + i / 6, 1.0 + i / 2 % 3, 1.0 + (i / 2 + i / 6) % 3, 1.0 + i % 2, 10.5 + i};
    values.insert(values.end(), std::begin(row), std::end(row));
    values.insert(values.end(), static_cast<std::size_t>(surplus_columns), -99.0);
  }
  return values;
}

std::vector<double> transposed(const std::vector<double>& by_rows, std::size_t columns)
{
  std::vector<double> by_columns;
  for (std::size_t j = 0; j < columns; ++j) {
    for (std::size_t i = 0; i < by_rows.size() / columns; ++i) by_columns.push_back(by_rows[i * columns + j]);
  }
  return by_columns;
}

TEST(Dataset, SplitPlotDesign)
{
  DataRoad road;
  road.matrix("sp", 12, 5, split_plot_rows());
  ASSERT_TRUE(road.form(split_plot)) << messages_text(road.eh);
  EXPECT_TRUE(clean(road.eh));
  // mu 1, variety 2-4, nitro 5-6, variety:nitro 7-12, block 13-14, block:wplot 15-20
  EXPECT_EQ(road.design_rows(),
            "1:1 2:1 5:1 7:1 13:1 15:1 | 10.5\n"
            "1:1 2:1 6:1 8:1 13:1 15:1 | 11.5\n"
            "1:1 3:1 5:1 9:1 13:1 16:1 | 12.5\n"
            "1:1 3:1 6:1 10:1 13:1 16:1 | 13.5\n"
            "1:1 4:1 5:1 11:1 13:1 17:1 | 14.5\n"
            "1:1 4:1 6:1 12:1 13:1 17:1 | 15.5\n"
            "1:1 3:1 5:1 9:1 14:1 18:1 | 16.5\n"
            "1:1 3:1 6:1 10:1 14:1 18:1 | 17.5\n"
            "1:1 4:1 5:1 11:1 14:1 19:1 | 18.5\n"
            "1:1 4:1 6:1 12:1 14:1 19:1 | 19.5\n"
            "1:1 2:1 5:1 7:1 14:1 20:1 | 20.5\n"
            "1:1 2:1 6:1 8:1 14:1 20:1 | 21.5\n");
  EXPECT_EQ(road.labels("variety"), "gold marv vict");
  EXPECT_EQ(road.labels("wplot"), "1 2 3");
}

TEST(Dataset, StorageOrdersAndSurplusGiveTheSameStore)
{
  DataRoad plain;
  plain.matrix("sp", 12, 5, split_plot_rows());
  ASSERT_TRUE(plain.read(split_plot));

  DataRoad surplus;  // two rows and three columns more than described
  surplus.matrix("sp", 14, 8, split_plot_rows(2, 3));
  ASSERT_TRUE(surplus.read(split_plot));
  EXPECT_EQ(surplus.rows(), plain.rows());

  std::string by_columns(split_plot);
  by_columns.replace(by_columns.find("so_row_major"), 12, "so_column_major");
  DataRoad columns;
  columns.matrix("sp", 14, 8, transposed(split_plot_rows(2, 3), 8));
  ASSERT_TRUE(columns.read(by_columns));
  EXPECT_EQ(columns.rows(), plain.rows());

  DataRoad document;  // the description comes with the matrix and is merged into the request by the caller
  const std::string text(split_plot);
  document.matrix(text.substr(0, text.find(",\n  \"model\"")) + "}", 12, 5, split_plot_rows());
  ASSERT_TRUE(document.read(split_plot)) << messages_text(document.eh);
  EXPECT_EQ(document.rows(), plain.rows());
}

TEST(Dataset, ValuesNotANumberAreMissingAndInfiniteOnesRefused)
{
  std::vector<double> values = split_plot_rows();
  values[5 * 3 + 4] = std::numeric_limits<double>::quiet_NaN();
  values[5 * 4 + 2] = -std::numeric_limits<double>::quiet_NaN();
  DataRoad road;
  road.matrix("sp", 12, 5, values);
  ASSERT_TRUE(road.read(split_plot));
  EXPECT_TRUE(is_no_value(road.store.row(3)[4]));
  EXPECT_TRUE(is_no_value(road.store.row(4)[2]));

  values[5 * 6 + 4] = -std::numeric_limits<double>::infinity();
  DataRoad infinite;
  infinite.matrix("sp", 12, 5, values);
  EXPECT_FALSE(infinite.read(split_plot));
  EXPECT_EQ(messages_text(infinite.eh), "!4/3 infinite value in dataset sp, variable y, record 7\n");
}

/// Reads one column of codes described by the given keys; gives levels, then labels.
std::string coded(const std::string& keys, const std::vector<double>& codes)
{
  DataRoad road;
  const auto n = static_cast<std::int64_t>(codes.size());
  road.matrix("d", n, 1, codes);
  if (!road.read(text(R"({"dataset":{"name":"d","number_of_observations":)", n,
                      R"(,"variables":[{"name":"f",)", keys, "}]}}"))) {
    return messages_text(road.eh);
  }
  std::string out;
  for (std::int64_t r = 0; r < n; ++r) {
    const double x = road.store.row(r)[0];
    out += is_no_value(x) ? std::string("NA ") : text(x, " ");
  }
  const std::string labels = road.variables.row(1).is_factor() ? road.labels("f") : "a variate";
  return out + "| " + labels + (road.eh.count() > 0 ? " | " + messages_text(road.eh) : "");
}

TEST(Dataset, CodedFactors)
{
  const std::string string_factor = R"("field_type":"vt_string_factor")";
  const std::string integer = R"("field_type":"vt_integer_factor")";
  const std::string one_to_n = R"("field_type":"vt_integer_factor_1_to_n")";
  EXPECT_EQ(coded(integer, {30, 10, NA, 30, -2}), "1 2 NA 1 3 | 30 10 -2");
  EXPECT_EQ(coded(integer + R"(,"sort":true)", {30, 10, NA, 30, -2, 9}), "4 3 NA 4 1 2 | -2 9 10 30");
  EXPECT_EQ(coded(integer + R"(,"factor_labels":[10,20,30])", {30, 10}), "3 1 | 10 20 30");
  EXPECT_EQ(coded(integer + R"(,"factor_labels":["low","high"],"factor_labels_indexed_from":0)", {1, 0, 1}),
            "2 1 2 | low high");
  EXPECT_EQ(coded(string_factor + R"(,"factor_labels":["b","a"],"sort":true)", {1, 2, 2}), "1 2 2 | b a");
  EXPECT_EQ(coded(string_factor + R"(,"factor_labels":["b","a"],"factor_labels_indexed_from":5)", {5, 6}),
            "1 2 | b a");
  EXPECT_EQ(coded(string_factor, {7, 5, 7}), "1 2 1 | 7 5");
  EXPECT_EQ(coded(string_factor + R"(,"sort":true)", {7, 10, 7}), "2 1 2 | 10 7");  // by bytes
  EXPECT_EQ(coded(one_to_n, {3, 1}), "3 1 | 1 2 3");
  EXPECT_EQ(coded(one_to_n + R"(,"factor_labels_indexed_from":0)", {0, 2}), "1 3 | 0 1 2");
  EXPECT_EQ(coded(one_to_n + R"(,"number_of_levels":4)", {1, 2}), "1 2 | 1 2 3 4");
  EXPECT_EQ(coded(one_to_n + R"(,"number_of_levels":2)", {1, 5}),
            "1 5 | 1 2 | 3/- the delared number of levels for f should be increased from 2 to about 5\n");
  EXPECT_EQ(coded(integer + R"(,"number_of_levels":3)", {8, 9}), "1 2 | 8 9 NA");
  EXPECT_EQ(coded(R"("number_of_levels":3,"factor_labels":[])", {8, 9.5}), "8 9.5 | a variate");

  const std::string where = "!4/3 invalid level in dataset d, variable f, record 2: ";
  EXPECT_EQ(coded(one_to_n, {1, 0}), where + "0 is below the first level\n");
  EXPECT_EQ(coded(one_to_n, {1, 1.5}), where + "1.5 is not a whole number\n");
  EXPECT_EQ(coded(integer, {1, 1.5}), where + "1.5 is not a whole number\n");
  EXPECT_EQ(coded(one_to_n, {1, 3e9}), where + "3e+09 is too large for a level\n");
  EXPECT_EQ(coded(integer, {1, 1e300}), where + "1e+300 is too large for a level\n");
}

TEST(Dataset, SharedLevels)
{
  DataRoad road;
  road.matrix("d", 3, 3, {11, 12, 11, /**/ 13, 11, 14, /**/ 12, 15, 12});
  ASSERT_TRUE(road.read(R"({"dataset":{"name":"d","number_of_observations":3,"variables":[
      {"name":"a","field_type":"vt_integer_factor","code_levels_as":"b"},
      {"name":"b","field_type":"vt_integer_factor","sort":true},
      {"name":"c","field_type":"vt_integer_factor","code_levels_as":"a"}]}})"))
      << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "1 3 2\n2 1 5\n1 4 2\n");
  EXPECT_EQ(road.labels("a"), "11 12 13 14 15");
  EXPECT_EQ(road.labels("c"), "11 12 13 14 15");
}

TEST(Dataset, ColumnsByNumber)
{
  DataRoad road;
  road.matrix("d", 2, 4, {1, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_TRUE(road.read(R"({"dataset":{"name":"d","number_of_observations":2,"storage_order":"so_row_major",
      "variables":[{"name":"a","user_column_number":4},{"name":"b"},{"name":"c","user_column_number":1}]}})"));
  EXPECT_EQ(road.rows(), "4 2 1\n8 6 5\n");
}

TEST(Dataset, PrimaryIsTheFirstWithTheResponse)
{
  const std::string json = R"({"dataset":[
      {"name":"g","number_of_observations":1,"number_of_variables":2},
      {"name":"e","number_of_observations":1,"variables":[{"name":"y"}]},
      {"name":"d","number_of_observations":2,"variables":[{"name":"y"},{"name":"x"}]}],
      "model":{"response":"y","fixed":"x"}})";
  DataRoad road;
  road.matrix("g", 1, 2, {7, 7});
  road.matrix("d", 2, 2, {1, 2, 3, 4});
  road.matrix("e", 1, 1, {9});
  ASSERT_TRUE(road.read(json)) << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "1 3\n2 4\n");
  const std::string warning =
      "3/- the variable y is not unique\n9999/- it appears in datasets d and e\n9999/- the variable from d "
      "will be used\n";
  EXPECT_EQ(messages_text(road.eh), warning);

  ERROR_HANDLER eh;
  DATASET_VIEW view;
  std::int64_t column = -1;
  UDST_FIND_VAR(eh, road.datasets, *road.request, "y", view, column);
  EXPECT_TRUE(has_message(eh, "it appears in datasets d and e"));
  EXPECT_EQ(view.value(0, column), 1.0);
  UDST_FIND_VAR(eh, road.datasets, *road.request, "x", view, column);
  EXPECT_EQ(view.value(1, column), 4.0);
  EXPECT_FALSE(eh.terminate());
  UDST_FIND_VAR(eh, road.datasets, *road.request, "z", view, column);
  EXPECT_TRUE(has_message(eh, "the variable z is unknown"));
}

TEST(Dataset, LaterMatrixAndLaterDescriptionCount)
{
  DataRoad road;
  road.matrix("d", 1, 1, {1});
  road.matrix("d", 2, 1, {5, 6});
  ASSERT_TRUE(road.read(R"({"dataset":[{"name":"d","number_of_observations":9,"variables":[{"name":"a"}]},
                                       {"name":"d","number_of_observations":2,"variables":[{"name":"b"}]}]})"));
  EXPECT_EQ(road.rows(), "5\n6\n");
  EXPECT_EQ(messages_text(road.eh),
            "3/- data information has been supplied multiple times, the previous information will be "
            "overwritten\n");
}

TEST(Dataset, Complaints)
{
  struct Row {
    std::string_view dataset;   // the value of the key
    std::string_view expected;  // first message
  };
  // clang-format off
  const Row table[] = {
    {R"({"name":"d","variables":[{"name":"y"}]})", "number of observations not specified"},
    {R"({"name":"d","number_of_observations":0,"variables":[{"name":"y"}]})", "invalid number of observations (nobs = 0) specified, nobs >= 1"},
    {R"({"name":"d","number_of_observations":2.0,"variables":[{"name":"y"}]})", "invalid value supplied for dataset[1].number_of_observations, was expecting one of: an integer, supplied value = 2.0"},
    {R"({"name":"d","number_of_observations":2,"storage_order":"rows","variables":[{"name":"y"}]})", "invalid value (rows) supplied for storage_order. Valid values = so_column_major or so_row_major"},
    {R"({"name":"d","number_of_observations":2})", "no variables supplied in the description of d"},
    {R"({"number_of_observations":2,"variables":[]})", "no variables supplied in the dataset description"},
    {R"({"name":"d","number_of_observations":2,"variables":[{"name":"a"},{"field_type":"vt_variate"}]})", "the 2 variable of dataset d does not have a name"},
    {R"({"number_of_observations":2,"variables":[{}]})", "the 1 variable of dataset none specified does not have a name"},
    {R"({"name":"d","number_of_observations":2,"variables":[{"name":"a"},{"name":"a"}]})", "multiple variables have the name a"},
    {R"({"name":"d","number_of_observations":4,"variables":[{"name":"a"}]})", "supplied data is too small, it is (3 x 2), was expecting at least (4 x 1)"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a"},{"name":"b"},{"name":"c"}]})", "supplied data is too small, it is (3 x 2), was expecting at least (3 x 3)"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","user_column_number":3}]})", "variable a is said to be column 3 of dataset d, which has 2 columns"},
    {R"({"name":"e","number_of_observations":3,"variables":[{"name":"a"}]})", "no data were supplied for dataset e"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_factor"}]})", "invalid value supplied for dataset[1].variables[1].field_type, was expecting one of: vt_variate, vt_string_factor, vt_integer_factor or vt_integer_factor_1_to_n, supplied value = vt_factor"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_integer_factor","number_of_levels":0}]})", "invalid number of levels supplied for a, supplied value = 0"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_string_factor","number_of_levels":4,"factor_labels":["p","q","r"]}]})", "FLLKEY not consistent with labels listed in JSON"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_string_factor","factor_labels":["p","p"]}]})", "the factor label p of variable a is not unique"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_integer_factor","code_levels_as":"b"}]})", "b is an unknown variable when trying to match levels for variable a"},
    {R"({"name":"d","number_of_observations":3,"variables":[{"name":"a","field_type":"vt_integer_factor","code_levels_as":"b"},{"name":"b"}]})", "the levels of a can not be coded as those of b, both must be factors of the same field type"},
  };
  // clang-format on
  for (const Row& row : table) {
    DataRoad road;
    road.matrix("d", 3, 2, {1, 2, 3, 4, 5, 6});
    EXPECT_FALSE(road.read(text(R"({"dataset":)", row.dataset, "}"))) << row.dataset;
    ASSERT_GT(road.eh.count(), 0) << row.dataset;
    EXPECT_EQ(road.eh.messages().front().message, row.expected) << messages_text(road.eh);
  }
}

TEST(Dataset, DocumentsInPlaceOfNames)
{
  const auto add = [](std::string_view document, std::int64_t rows, std::int64_t columns) {
    DataRoad road;
    road.matrix(document, rows, columns, {1, 2, 3, 4});
    return road.eh.count() == 0 ? road.datasets.datasets.front().name : *road.eh.messages().front().message;
  };
  const std::string body = R"({"name":"m","number_of_observations":2,"number_of_variables":2})";
  EXPECT_EQ(add(text(R"({"dataset":)", body, "}"), 2, 2), "m");
  EXPECT_EQ(add(text(R"({"dataset":[)", body, "]}"), 2, 2), "m");
  EXPECT_EQ(add(text(R"({"dataset":)", body, "}"), 4, 1),
            "supplied data is too small, it is (4 x 1), was expecting at least (2 x 2)");
  EXPECT_EQ(add(text(R"({"dataset":[)", body, ",", body, "]}"), 2, 2),
            "supplied JSON describes more than one dataset");
  EXPECT_EQ(add(R"({"data":1})", 2, 2), "supplied JSON does not describe a dataset");
  EXPECT_EQ(add(R"({"dataset":[]})", 2, 2), "supplied JSON does not describe a dataset");
  EXPECT_NE(add(R"({"dataset":)", 2, 2), "m");  // no JSON

  ERROR_HANDLER eh;
  USER_DATASET_STORE store;
  UDST_ADD(eh, store, "m", nullptr, 2, 2);
  EXPECT_TRUE(has_message(eh, "invalid data supplied for dataset m, it is (2 x 2)"));
  EXPECT_TRUE(store.datasets.empty());
}

TEST(Dataset, VariableNames)
{
  const COMMUNICATION words;
  struct Row {
    std::string name;
    std::string_view expected;  // empty: legal
  };
  const std::string long_name(31, 'n');
  const Row table[] = {
      {"", "null string is not a valid name"},
      {long_name, ""},
      {long_name + "n",
       "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn is invalid, variable names must be <= 31 characters long"},
      {"1" + long_name,
       "1nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn is invalid, variable names must be <= 31 characters long"},
      {"1a", "1a is invalid, variable names must begin with a character"},
      {".a", ".a is invalid, variable names must begin with a character"},
      {"a.b", "a.b is invalid, variable names must not contain any of the following symbols: .*:/!#$|()"},
      {"a b", ""},
      {"mu",
       "mu is invalid, variable names may not be one of the following reserved words: mu, mv, units or "
       "trait"},
      {"Units", ""},
      {"trait",
       "trait is invalid, variable names may not be one of the following reserved words: mu, mv, units or "
       "trait"},
  };
  for (const Row& row : table) {
    ERROR_HANDLER eh;
    EXPECT_EQ(CHECK_VARIABLE_NAME_VALIDITY(eh, words, row.name), row.expected.empty()) << row.name;
    if (!row.expected.empty()) {
      ASSERT_EQ(eh.count(), 1);
      EXPECT_EQ(eh.messages()[0].message, row.expected);
      EXPECT_TRUE(eh.terminate());
    }
  }
  ERROR_HANDLER eh;
  EXPECT_TRUE(CHECK_VARIABLE_NAME_VALIDITY(eh, words, "units", true));
  EXPECT_FALSE(CHECK_VARIABLE_NAME_VALIDITY(eh, words, "a:b", true, true));
  EXPECT_TRUE(clean(eh));
}

TEST(LevelTable, CopiesStandAlone)
{
  LEVEL_TABLE original;
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(original.find_or_add(text("L", i % 500)), i % 500 + 1);
  LEVEL_TABLE copy = original;
  LEVEL_TABLE moved = std::move(original);
  original = {};
  EXPECT_EQ(copy.find("L499"), 500);
  EXPECT_EQ(copy.find_or_add("new"), 501);
  EXPECT_EQ(moved.size(), 500);
  EXPECT_EQ(moved.find("new"), 0);
  EXPECT_EQ(moved.find("L7"), 8);
  EXPECT_EQ(copy.label(501), "new");
}

}  // namespace
}  // namespace tolvan
