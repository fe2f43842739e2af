// Transformations: programs with their inputs and results, their messages, factors, made variables, files.
#include <cmath>
#include <filesystem>
#include <fstream>

#include "base/text.h"
#include "data/data_road.h"
#include "data/day_number.h"
#include "data/transform_record.h"
#include "support/failing_memory.h"

namespace tolvan {
namespace {

constexpr double two_pi = 6.283185308;

/// Runs a list of transformations over records of x, y and z, the list standing with y; further parts of the
/// request may follow.  Gives the store, or the messages where there is none.
struct Trial {
  DataRoad road;
  bool read = false;

  Trial(std::string_view list, const std::vector<double>& rows, std::string_view more = "")
  {
    const auto n = static_cast<std::int64_t>(rows.size() / 3);
    road.matrix("d", n, 3, rows);
    read =
        road.read(text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)",
                       n, R"(,"variables":[{"name":"x"},{"name":"y","transformations":)", list,
                       R"(},{"name":"z"}]})", more, "}"));
  }
  std::vector<double> column(std::size_t v) const
  {
    std::vector<double> out;
    for (std::int64_t r = 0; r < road.store.records(); ++r) out.push_back(road.store.row(r)[v]);
    return out;
  }
  std::string messages() { return messages_text(road.eh); }
};

/// One transformation of single values against a formula.
struct ValueRow {
  std::string_view list;
  std::vector<double> y;
  std::vector<double> expected;
};

TEST(Transform, ValuesAgreeWithFormulas)
{
  // x is 3 in every record, z is missing
  const ValueRow table[] = {
      {R"([{"name":"+","arguments":2.5}])", {1, NA}, {3.5, NA}},
      {R"([{"+":2.5}])", {1, NA}, {3.5, NA}},
      {R"({"name":"-","argument":2})", {1, NA}, {-1, NA}},
      {R"([{"name":"*","value":[2]}])", {1.5, NA}, {3, NA}},
      {R"([{"name":"/","arguments":4}])", {1, -6}, {0.25, -1.5}},
      {R"([{"name":"/","arguments":0}])", {1, 0}, {NA, NA}},
      {R"([{"name":"^","arguments":0.5}])", {2, 0, -2}, {std::sqrt(2.0), 0, NA}},
      {R"([{"name":"^","arguments":3}])", {-2, 0, NA}, {-8, 0, NA}},
      {R"([{"name":"^","arguments":-1}])", {4, 0}, {0.25, NA}},
      {R"([{"name":"+","arguments":"x"}])", {1, NA}, {4, NA}},
      {R"([{"name":"-","arguments":"V1"}])", {1, 5}, {-2, 2}},
      {R"([{"name":"*","arguments":"z"}])", {1, NA}, {NA, NA}},
      {R"([{"name":"*","arguments":"2"}])", {1, 2}, {2, 4}},
      {R"([{"name":"<","arguments":"x"}])", {2, 3, 4, NA}, {1, 0, 0, NA}},
      {R"([{"name":"<=","arguments":3}])", {2, 3, 4}, {1, 1, 0}},
      {R"([{"name":">","arguments":3}])", {2, 3, 4}, {0, 0, 1}},
      {R"([{"name":">=","arguments":3}])", {2, 3, 4}, {0, 1, 1}},
      {R"([{"name":"=","arguments":3}])", {2, 3, NA}, {0, 1, NA}},
      {R"([{"name":"==","arguments":3}])", {2, 3, NA}, {0, 1, NA}},
      {R"([{"name":"<>","arguments":3}])", {2, 3, NA}, {1, 0, NA}},
      {R"([{"name":"EXP"}])", {0, 1.5, NA, 1000}, {1, std::exp(1.5), NA, NA}},
      {R"([{"exp":null}])", {0, 1}, {1, std::exp(1.0)}},
      {R"([{"name":"ABS"}])", {-2, 3, NA}, {2, 3, NA}},
      {R"([{"name":"COS"}])", {0, 1, -2}, {1, std::cos(1.0), std::cos(2.0)}},
      {R"([{"name":"SIN","arguments":360}])", {0, 90, 30}, {0, std::sin(two_pi / 4), std::sin(two_pi / 12)}},
      {R"([{"name":"MOD","arguments":3}])", {7, -7, 4.5, NA}, {1, 2, 1.5, NA}},
      {R"([{"name":"MOD","arguments":-3}])", {7, -7}, {-2, -1}},
      {R"([{"name":"MAX","arguments":3}])", {2, 4, NA}, {3, 4, NA}},
      {R"([{"name":"MIN","arguments":3}])", {2, 4, NA}, {2, 3, NA}},
      {R"([{"name":"SEQ"}])", {5, 5, 2, NA, 2, 5}, {1, 1, 2, NA, 2, 3}},
      {R"([{"name":"DOM"}])", {-1, 0, 1, 0.25, NA}, {0, 1, 0, 0.75, NA}},
      {R"([{"name":"DOM","arguments":2}])", {0, 1, 2, 0.5}, {0, 1, 0, 0.75}},
      {R"([{"name":"ARCSIN"}])", {0.25, 1, 2}, {std::asin(0.5), std::asin(1.0), NA}},
      {R"([{"name":"ARCSIN","arguments":100}])", {25, -1}, {std::asin(0.5), NA}},
      {R"([{"ARCSIN":20},{"ARCSINV":20}])", {5, 13, 20}, {5, 13, 20}},
      {R"([{"name":"SUB","arguments":[10,20,10]}])", {10, 20, 30, NA}, {1, 2, 0, NA}},
      {R"([{"name":"SET","arguments":[1.5,2.5,9]}])", {1, 3, 0, 4, 1.5, NA}, {1.5, 9, NA, NA, NA, NA}},
      {R"([{"name":"REPLACE","arguments":[1,2,2,1]}])", {1, 2, 3, NA}, {2, 1, 3, NA}},
      {R"([{"name":"REPLACE","arguments":["NA",0,-9,"*"]}])", {1, NA, -9}, {1, 0, NA}},
      {R"([{"name":"RESCALE","arguments":[-10,0.5]}])", {12, NA}, {1, NA}},
      {R"([{"name":"M","arguments":0}])", {0, 1, NA}, {NA, 1, NA}},
      {R"([{"name":"M<","arguments":2}])", {1, 2, 3}, {NA, 2, 3}},
      {R"([{"name":"M<=","arguments":2}])", {1, 2, 3}, {NA, NA, 3}},
      {R"([{"name":"M>","arguments":2}])", {1, 2, 3}, {1, 2, NA}},
      {R"([{"name":"M>=","arguments":2}])", {1, 2, 3}, {1, NA, NA}},
      {R"([{"name":"M<>","arguments":2}])", {1, 2, NA}, {NA, 2, NA}},
      {R"([{"name":"D","arguments":"*"}])", {1, NA, 2}, {1, 2}},
      {R"([{"name":"D","arguments":1}])", {1, NA, 2}, {2}},
      {R"([{"name":"Dv","arguments":1}])", {1, NA, 2}, {NA, 2}},
      {R"([{"name":"D<","arguments":2}])", {1, 2, 3, NA}, {2, 3, NA}},
      {R"([{"name":"D<=","arguments":2}])", {1, 2, 3, NA}, {3, NA}},
      {R"([{"name":"D>","arguments":2}])", {1, 2, 3, NA}, {1, 2, NA}},
      {R"([{"name":"D>=","arguments":2}])", {1, 2, 3, NA}, {1, NA}},
      {R"([{"name":"D<>","arguments":2}])", {1, 2, 3, NA}, {2, NA}},
      // records that are dropped count for nothing further on
      {R"([{"D":"*"},{"Dv":7},{"name":"SEQ"},{"*":10}])", {4, 7, 4, NA, 5}, {10, 10, 20}},
      {R"([{"-":"x"},{"/":2},{"^":2}])", {5, 1, NA}, {1, 1, NA}},
      {R"([{"JDDM":null}])", {101, 312, 3112, 1011901, 28022024}, {1, 337, 365, 366, 45349}},
      {R"([{"JMMD":null}])", {101, 1203, 12312023}, {1, 337, 45290}},
      {R"([{"JYYM":null}])", {19000101, 20000229, 990131, 18991231}, {1, 36584, 36190, 0}},
      {R"([{"JYYD":null}])", {1900001, 2024366, 99032, 60}, {1, 45656, 36191, 60}},
  };
  for (const ValueRow& row : table) {
    std::vector<double> rows;
    for (const double y : row.y) rows.insert(rows.end(), {3.0, y, NA});
    Trial run(row.list, rows);
    ASSERT_TRUE(run.read) << row.list << " " << run.messages();
    const std::vector<double> got = run.column(1);
    ASSERT_EQ(got.size(), row.expected.size()) << row.list;
    for (std::size_t r = 0; r < got.size(); ++r) {
      EXPECT_NEAR(got[r], row.expected[r], 1e-13 * std::abs(row.expected[r]))
          << row.list << " record " << r + 1;
    }
  }
}

TEST(Transform, DayNumbersCountEveryDay)
{
  // Day by day through the rules of leap years.
  constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  std::int64_t expected = 1;
  for (std::int64_t year = 1900; year <= 2101; ++year) {
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    for (std::int64_t month = 1; month <= 12; ++month) {
      const std::int64_t last = days[month - 1] + (leap && month == 2 ? 1 : 0);
      for (std::int64_t day = 1; day <= last; ++day) ASSERT_EQ(day_number(year, month, day), expected++);
      EXPECT_FALSE(day_number(year, month, last + 1));
    }
  }
  EXPECT_EQ(full_year(32), 2032);
  EXPECT_EQ(full_year(33), 1933);
  EXPECT_EQ(full_year(199), 2099);
  EXPECT_EQ(full_year(1900), 1900);
}

TEST(Transform, Messages)
{
  struct Row {
    std::string_view list;
    std::string_view expected;  // all messages
  };
  const std::string_view overwritten = "1/- a transformation is overwriting input variable y\n";
  const std::string drop_forms = text(
      "1/- use the \"D *\" directive to discard ONLY records containing the missing value and\n"
      "9999/- the \"Dv c\" directive to discard records containing c but retain those with missing values\n");
  // clang-format off
  const Row table[] = {
    {R"([{"name":"*","arguments":2},{"name":"+","arguments":2}])", overwritten},
    {R"([{"name":"LOG"}])", "!4/3 an unknown transformation (LOG) was specified for variable y\n"},
    {R"([{"name":"","arguments":1}])", "!4/3 an unknown transformation () was specified for variable y\n"},
    {R"([{"name":"*","arguments":"w"}])", "!4/3 expected a variable name in the transformation * for variable y\n9999/3 w is no variable\n"},
    {R"([{"name":"*","arguments":"V4"}])", "!4/3 expected a variable name in the transformation * for variable y\n9999/3 V4 is no variable\n"},
    {R"([{"name":"*","arguments":true}])", "!4/3 expected either a numeric value or variable name in the transformation * for variable y\n"},
    {R"([{"name":"<=","arguments":{"a":1}}])", "!4/3 expected either a numeric value or variable name in the transformation <= for variable y\n"},
    {R"([{"name":"+"}])", "!4/3 no argument supplied for the transformation + for variable y\n"},
    {R"([{"name":"+","arguments":[1,2]}])", "!4/3 was expecting at most one argument for the transformation + for variable y\n"},
    {R"([{"name":"MOD"}])", "!4/3 no argument supplied for the transformation MOD for variable y\n"},
    {R"([{"name":"COS","arguments":[1,2]}])", "!4/3 was expecting at most one argument for the transformation COS for variable y\n"},
    {R"([{"name":"MAX","arguments":false}])", "!4/3 invalid value (false) supplied as an argument for the transformation MAX for variable y, was expecting a numeric value\n"},
    {R"([{"name":"MAX","arguments":"x"}])", "!4/3 unknown string (x\n9999/3 supplied as an argument for the transformation MAX for variable y\n"},
    {R"([{"name":"EXP","arguments":1}])", "!4/3 1 arguments supplied for the transformation EXP for variable y, was expecting 0\n"},
    {R"([{"name":"SET"}])", "!4/3 no arguments supplied for the transformation SET for variable y\n"},
    {R"([{"name":"SET","arguments":[1,3,2]}])",
     "!4/3 values supplied to transformation SET must be strictly increasing\n9999/3 for variable y, 2 follows 3\n"},
    {R"([{"name":"SET","arguments":[1,1]}])",
     "!4/3 values supplied to transformation SET must be strictly increasing\n9999/3 for variable y, 1 follows 1\n"},
    {R"([{"name":"SUB","arguments":[1,"a"]}])", "!4/3 invalid value (a) supplied as argument 2 for the transformation SUB for variable y, was expecting a numeric value\n"},
    {R"([{"name":"RESCALE","arguments":1}])", "!4/3 1 arguments supplied for the transformation RESCALE for variable y, was expecting 2\n"},
    {R"([{"name":"REPLACE","arguments":[1,2,3]}])", "!4/3 3 arguments supplied for the transformation REPLACE for variable y, was expecting 4\n"},
    {R"([{"name":"REPLACE","arguments":["x",2]}])", "!4/3 invalid value (x) supplied as argument 1 for the transformation REPLACE for variable y, was expecting a numeric value\n"},
    {R"([{"name":"NORMAL","arguments":-1}])", "!4/3 invalid value (-1) supplied as an argument for the transformation NORMAL for variable y, was expecting a variance\n"},
    {R"([{"name":"SEED","arguments":1.5}])", "!4/3 invalid value (1.5) supplied as an argument for the transformation SEED for variable y, was expecting a whole number\n"},
    {R"([{"name":"DOM","arguments":3}])", "!4/3 invalid value (3) supplied as an argument for the transformation DOM for variable y, was expecting the highest marker code, 1 or 2\n"},
    {R"([{"name":"DOM"}])", "!4/3 invalid marker: 4\n9999/3 DOM takes codes from -1 to 1, with the argument 2 codes from 0 to 2\n9999/3 transformation DOM of variable y in data record 2\n"},
    {R"([{"name":"JDDM"}])", "!4/3 invalid date: 1\n9999/3 transformation JDDM of variable y in data record 1\n"},
    {R"([{"name":"D<","arguments":"*"}])", "!4/3 expected a numeric value in the transformation D< for variable y\n"},
    {R"([{"name":"M","arguments":"x"}])", "!4/3 expected a numeric value in the transformation M for variable y\n"},
    {R"([{"name":"D"}])", "!4/3 no argument supplied for the transformation D for variable y\n"},
    {R"([{"name":"D","arguments":"*"}])", "1/- 1 records were dropped by transformations\n"},
    {R"([{"name":"/","arguments":0}])", "1/- a transformation is overwriting input variable y\n3/- in 2 records the transformation / of variable y has no value, the result is missing\n"},
    {R"([1])", "!4/3 invalid value supplied for dataset[1].variables[2].transformations, was expecting one of: an array of objects that describe transformations, supplied value = [1]\n"},
    {R"(["EXP"])", "!4/3 invalid value supplied for dataset[1].variables[2].transformations[1], was expecting one of: an object that describes a transformation, supplied value = EXP\n"},
    {R"([{"TARGET":"x"}])", "!4/3 name is required but was not found in dataset[1].variables[2].transformations[1]\n"},
    {R"([{"name":"ABS","TARGET":"w"}])", "!4/3 expected a variable name in the transformation ABS for variable y\n9999/3 TARGET is w, which is no variable\n"},
    {R"([{"name":"ABS","TARGET":"x"}])", "1/- a transformation is overwriting input variable x\n"},
    {R"([{"name":"ABS","to":"x"}])", "3/- dataset[1].variables[2].transformations[1].to is not a recognised key\n1/- a transformation is overwriting input variable y\n"},
  };
  // clang-format on
  for (const Row& row : table)
    EXPECT_EQ(Trial(row.list, {3, 1, NA, 3, 4, NA, 3, NA, NA}).messages(), row.expected);
  EXPECT_EQ(Trial(R"([{"D":9},{"D":8}])", {1, 1, 1}).messages(), drop_forms);
}

TEST(Transform, ListsRunInOrderOfVariablesThenTheTopList)
{
  // y (from x's list) is x + 1 before y's own list doubles it; the top list works last.
  const std::string variables = R"("variables":[{"name":"y","transformations":[{"*":2}]},
      {"name":"x","transformations":[{"name":"+","arguments":1,"TARGET":"y"},{"*":10}]}])";
  DataRoad road;
  road.matrix("d", 2, 2, {5, 6, 1, 2});
  ASSERT_TRUE(road.read(text(R"({"dataset":{"name":"d","number_of_observations":2,)", variables,
                             R"(},"transformations":[{"name":"-","arguments":"x","target":"y"}]})")))
      << messages_text(road.eh);
  EXPECT_EQ(road.rows(), "-8 10\n-17 20\n");
  EXPECT_EQ(messages_text(road.eh),
            "1/- a transformation is overwriting input variable y\n1/- a transformation is overwriting input "
            "variable x\n");

  DataRoad without;
  without.matrix("d", 2, 2, {5, 6, 1, 2});
  EXPECT_FALSE(without.read(text(R"({"dataset":{"name":"d","number_of_observations":2,)", variables,
                                 R"(},"transformations":[{"name":"-","arguments":"x"}]})")));
  EXPECT_EQ(messages_text(without.eh), "!4/3 TARGET is required but was not found in transformations[1]\n");
}

TEST(Transform, VariablesThatAreNoColumnsOfTheData)
{
  const auto with = [](std::string_view variables, std::string_view more = "") {
    DataRoad road;
    road.matrix("d", 2, 2, {5, 6, NA, 2});
    road.read(text(R"({"dataset":{"name":"d","number_of_observations":2,"variables":[)", variables, "]}",
                   more, "}"));
    return road.eh.count() > 0 ? messages_text(road.eh) : road.rows();
  };
  // by the number 0 they start at 0, wherever they stand
  EXPECT_EQ(with(R"({"name":"a"},{"name":"z","user_column_number":0,"transformations":[{"+":"a"},{"*":2}]},
                    {"name":"b"})"),
            "5 10 NA\n6 12 2\n");
  EXPECT_EQ(with(R"({"name":"a"},{"name":"b"},{"name":"z","user_column_number":0})",
                 R"(,"transformations":[{"name":"+","arguments":"b","TARGET":"z"}])"),
            "5 NA NA\n6 2 2\n");
  // beyond the data they must be made before they are read
  EXPECT_EQ(with(R"({"name":"a","transformations":[{"name":"^","arguments":2,"TARGET":"z"}]},{"name":"b"},
                    {"name":"z","transformations":[{"-":1}]})"),
            "5 NA 24\n6 2 35\n");
  EXPECT_EQ(with(R"({"name":"a"},{"name":"b"},{"name":"z","transformations":[{"-":1}]})"),
            "!4/3 supplied data is too small, it is (2 x 2), was expecting at least (2 x 3)\n9999/3 dataset d\n");
  EXPECT_EQ(with(R"({"name":"a","transformations":[{"name":"+","arguments":"z"},{"name":"ABS","TARGET":"z"}]},
                    {"name":"b"},{"name":"z"})"),
            "!4/3 variable z is said to be column 3 of dataset d, which has 2 columns\n");
  EXPECT_EQ(with(R"({"name":"a"},{"name":"b"},{"name":"z","user_column_number":0})"),
            "!4/3 variable z is in no column of the data and no transformation makes it\n");
}

TEST(Transform, FactorsAreCodedAfterThem)
{
  const auto coded = [](std::string_view keys, const std::vector<double>& codes) {
    DataRoad road;
    road.matrix("d", static_cast<std::int64_t>(codes.size()), 1, codes);
    road.read(text(R"({"dataset":{"name":"d","number_of_observations":)", codes.size(),
                   R"(,"variables":[{"name":"f",)", keys, "}]}}"));
    if (road.eh.terminate()) return messages_text(road.eh);
    std::string out;
    for (std::int64_t r = 0; r < road.store.records(); ++r) {
      const double x = road.store.row(r)[0];
      out += is_no_value(x) ? std::string("NA ") : text(x, " ");
    }
    return out + "| " + road.labels("f");
  };
  const std::string integer = R"("field_type":"vt_integer_factor","transformations":)";
  const std::string one_to_n = R"("field_type":"vt_integer_factor_1_to_n","transformations":)";
  EXPECT_EQ(coded(integer + R"([{"-":2000}])", {2019, 2017, NA, 2019}), "1 2 NA 1 | 19 17");
  EXPECT_EQ(coded(integer + R"([{"-":2000}],"sort":true)", {2019, 2017, NA}), "2 1 NA | 17 19");
  EXPECT_EQ(coded(integer + R"([{"M":7}],"factor_labels":[5,6,7])", {5, 7, 6}), "1 NA 2 | 5 6 7");
  EXPECT_EQ(coded(one_to_n + R"([{"SUB":[30,10]}])", {10, 30, 10}), "2 1 2 | 1 2");
  EXPECT_EQ(coded(one_to_n + R"([{"-":1}],"factor_labels_indexed_from":0)", {1, 3}), "1 3 | 0 1 2");
  EXPECT_EQ(coded(one_to_n + R"([{"SUB":[30,10]}])", {10, 20}),
            "!4/3 transformations make an invalid level of f in data record 2: 0 is below the first level\n");
  EXPECT_EQ(coded(integer + R"([{"/":2}])", {10, 5}),
            "!4/3 transformations make an invalid level of f in data record 2: 2.5 is not a whole number\n");
  EXPECT_EQ(
      coded(one_to_n + R"([{"EXP":null}])", {0, 500}),
      "!4/3 transformations make an invalid level of f in data record 2: 1.4035922178528375e+217 is too "
      "large for a level\n");
}

TEST(Transform, RandomDraws)
{
  const std::vector<double> zeros(3 * 20000, 0.0);
  const auto draw = [&zeros](std::string_view list) { return Trial(list, zeros).column(1); };
  const auto moments = [](const std::vector<double>& x) {
    double m1 = 0, m2 = 0, m3 = 0, m4 = 0;
    for (const double v : x) m1 += v / static_cast<double>(x.size());
    for (const double v : x) {
      const double d = v - m1;
      m2 += d * d, m3 += d * d * d, m4 += d * d * d * d;
    }
    const auto n = static_cast<double>(x.size());
    m2 /= n;
    return std::vector<double>{m1, m2, m3 / n / std::pow(m2, 1.5), m4 / n / (m2 * m2)};
  };
  // Four standard errors of each moment at 20000 draws.
  const auto normal = moments(draw(R"([{"NORMAL":4}])"));
  EXPECT_NEAR(normal[0], 0.0, 4 * 2.0 / std::sqrt(20000.0));
  EXPECT_NEAR(normal[1], 4.0, 4 * 4.0 * std::sqrt(2.0 / 20000));
  EXPECT_NEAR(normal[2], 0.0, 4 * std::sqrt(6.0 / 20000));
  EXPECT_NEAR(normal[3], 3.0, 4 * std::sqrt(24.0 / 20000));
  const auto uniform = moments(draw(R"([{"UNIFORM":6}])"));
  EXPECT_NEAR(uniform[0], 3.0, 4 * std::sqrt(3.0 / 20000));
  EXPECT_NEAR(uniform[1], 3.0, 4 * 3.0 * std::sqrt(0.8 / 20000));
  EXPECT_NEAR(uniform[3], 1.8, 0.05);

  EXPECT_EQ(draw(R"([{"NORMAL":1}])"), draw(R"([{"NORMAL":1}])"));
  EXPECT_EQ(draw(R"([{"SEED":7},{"NORMAL":1}])"), draw(R"([{"SEED":7},{"NORMAL":1}])"));
  EXPECT_NE(draw(R"([{"SEED":7},{"NORMAL":1}])"), draw(R"([{"SEED":8},{"NORMAL":1}])"));
  EXPECT_TRUE(is_no_value(Trial(R"([{"NORMAL":1}])", {1, NA, 1}).column(1)[0]));
}

TEST(Transform, RecordsTakeNoMemory)
{
  Trial trial(
      R"([{"+":"x"},{"^":2},{"SET":[1,2,3]},{"REPLACE":[2,"NA"]},{"NORMAL":1},{"SEQ":null},{"Dv":-1}])",
      {1, 1, 1});
  ASSERT_TRUE(trial.read) << trial.messages();
  LEVEL_CODING coding;
  L_PREPARE_LEVEL_CODING(trial.road.eh, trial.road.variables, true, coding);
  double row[3] = {1, 0, 0};
  std::int64_t kept = 0;
  bool struck = true;
  {
    const FailingMemory failing(0);
    for (int r = 0; r < 1000; ++r) {
      row[1] = r % 5;
      kept += AIDTRN(trial.road.eh, trial.road.variables, coding, r, row) ? 1 : 0;
    }
    struck = failing.struck();
  }
  EXPECT_FALSE(struck);
  EXPECT_EQ(kept, 1000);
}

TEST(Transform, Files)
{
  const std::string path = testing::TempDir() + "transform_test.csv";
  std::ofstream(path) << "b,2019,2.5\na,2018,NA\nb,2018,1e1\nc,2019,4\n";
  const auto with = [&path](std::string_view variables) {
    DataRoad road;
    road.read(
        text(R"({"data_file":{"name":")", path, R"(","type":"ft_csv"},"variables":[)", variables, "]}"));
    std::string out = road.eh.terminate() ? "" : road.rows();
    for (const VARIABLE& v : road.variables.rows) {
      if (!road.eh.terminate() && v.is_factor()) out += road.labels(v.name) + "\n";
    }
    const std::string reading = text("1/- reading ", path, " as FREE FORMAT skipping 0 lines\n");
    std::string messages = messages_text(road.eh);
    if (messages.starts_with(reading)) messages.erase(0, reading.size());
    return out + messages;
  };
  // a last column that is written before it is read is passed over, with the note all the same
  EXPECT_EQ(with(R"({"name":"g","field_type":"vt_string_factor"},{"name":"year","transformations":[
                    {"name":"MOD","arguments":2000,"TARGET":"y"}]},{"name":"y"})"),
            "1 2019 19\n2 2018 18\n1 2018 18\n3 2019 19\nb a c\n"
            "1/- a transformation is overwriting input variable y\n");
  const std::string year = R"({"name":"year","field_type":"vt_integer_factor"})";
  // levels that only dropped records have are not met
  EXPECT_EQ(
      with(R"({"name":"g","field_type":"vt_string_factor"},{"name":"year","field_type":"vt_integer_factor",
                    "transformations":[{"-":2000}]},{"name":"y","transformations":[{"D":"*"},{"/":10},
                    {"name":"-","arguments":"year","TARGET":"z"}]},{"name":"z"})"),
      "1 1 0.25 -18.75\n1 2 1 -17\n3 1 0.4 -18.6\nb a c\n19 18\n"
      "1/- a transformation is overwriting input variable year\n"
      "1/- a transformation is overwriting input variable y\n1/- 1 records were dropped by "
      "transformations\n");
  EXPECT_EQ(
      with(text(R"({"name":"g","field_type":"vt_string_factor","transformations":[{"REPLACE":[3,1]}]},)",
                year, R"(,{"name":"y"})")),
      "1 1 2.5\n2 2 NA\n1 2 10\n1 1 4\nb a c\n2019 2018\n"
      "1/- a transformation is overwriting input variable g\n");
  EXPECT_EQ(with(text(R"({"name":"g","field_type":"vt_string_factor","sort":true,
                      "transformations":[{"REPLACE":[3,1]}]},)",
                      year)),
            "!4/3 the levels of g can not be sorted, transformations use its level numbers\n");
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace tolvan
