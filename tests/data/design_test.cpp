// The design: an independent small reference, the rules of missing values, weights, limits.
#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

/// Variables f (3 levels), g (2 levels), x, w, y of a matrix by rows.
std::string request(std::int64_t records, std::string_view model, std::string_view more = "")
{
  return text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)", records,
              R"(,"variables":[{"name":"f","field_type":"vt_integer_factor_1_to_n","number_of_levels":3},
      {"name":"g","field_type":"vt_integer_factor_1_to_n","number_of_levels":2},
      {"name":"x"},{"name":"w"},{"name":"y"}]},"model":{"response":"y",)",
              model, "}", more, "}");
}

void form(DataRoad& road, const std::vector<double>& values, std::string_view model,
          std::string_view more = "")
{
  const auto records = static_cast<std::int64_t>(values.size() / 5);
  road.matrix("d", records, 5, values);
  road.form(request(records, model, more));
}

/// The design rows from their definition: terms by name, each record's column told by the labels of its
/// levels.
std::string reference_rows(const DataRoad& road, const std::vector<std::vector<std::string>>& terms)
{
  const std::map<std::string, std::int64_t> levels{{"f", 3}, {"g", 2}, {"units", road.store.records()}};
  const std::map<std::string, std::size_t> columns{{"f", 0}, {"g", 1}, {"x", 2}};
  std::string out;
  for (std::int64_t r = 0; r < road.store.records(); ++r) {
    const auto row = road.store.row(r);
    if (is_no_value(row[4])) continue;
    std::int64_t first = 0;
    for (const auto& term : terms) {
      // Counts columns through all combinations of levels, the last component running fastest.
      std::vector<std::int64_t> at(term.size(), 1);
      std::int64_t size = 1;
      for (const std::string& name : term) size *= levels.contains(name) ? levels.at(name) : 1;
      for (std::int64_t column = 1; column <= size; ++column) {
        double value = 1.0;
        for (std::size_t k = 0; k < term.size(); ++k) {
          if (term[k] == "mu") continue;
          if (term[k] == "units") {
            value *= at[k] == r + 1 ? 1.0 : 0.0;
          } else if (term[k] == "x") {
            value *= is_no_value(row[2]) ? 0.0 : row[2];
          } else {
            value *= row[columns.at(term[k])] == static_cast<double>(at[k]) ? 1.0 : 0.0;
          }
        }
        if (value != 0.0) out += text(first + column, ":", value, " ");
        for (std::size_t k = term.size(); k-- > 0;) {
          if (levels.contains(term[k]) && ++at[k] <= levels.at(term[k])) break;
          at[k] = 1;
        }
      }
      first += size;
    }
    out += text("| ", row[4], "\n");
  }
  return out;
}

TEST(Design, AgreesWithItsDefinition)
{
  std::mt19937 random(7);
  std::vector<double> values;
  for (int r = 0; r < 60; ++r) {
    const auto missing = [&random](double x) { return random() % 8 == 0 ? NA : x; };
    values.push_back(missing(1.0 + random() % 3));
    values.push_back(missing(1.0 + random() % 2));
    values.push_back(missing(static_cast<double>(random() % 5) - 2.0));
    values.push_back(1.0);
    values.push_back(missing(random() % 100 / 4.0));
  }
  const std::string include = R"(,"na_action":{"x":"include"})";
  DataRoad road;
  form(road, values, R"("fixed":"x+f:x+g:f:x","random":"f:g+units+x:x+idv(g):f")", include);
  ASSERT_FALSE(road.eh.terminate()) << messages_text(road.eh);
  EXPECT_EQ(
      road.design_rows(),
      reference_rows(
          road, {{"mu"}, {"x"}, {"f", "x"}, {"g", "f", "x"}, {"f", "g"}, {"units"}, {"x", "x"}, {"g", "f"}}));
  for (std::int64_t r = 0; r < road.design.rows(); ++r) {  // rising equations
    const auto e = road.design.equations(r);
    EXPECT_TRUE(std::adjacent_find(e.begin(), e.end(), std::greater_equal<>{}) == e.end());
  }
}

constexpr std::string_view dropped_text =
    " analysis records were dropped because the response variable was missing\n";
constexpr std::string_view zeros_text =
    "9999/- they were treated as zeros, this may be reasonable if all covariates involved are centred\n";
constexpr std::string_view annulled_text =
    "3/- the analysis records involved have been annulled by converting the response (Y) to a missing "
    "value.\n"
    "9999/- you should set the missing value options if you wish missing values handled differently\n"
    "9999/- full records with missing values in the design variables should be dropped\n";
constexpr std::string_view removed_text =
    " records were dropped because of missing values in design variables\n"
    "9999/- the analysis records involved have been excluded from analysis\n";
constexpr std::string_view not_counting_text =
    "9999/- not counting instances where the response (Y) was also missing\n"
    "9999/- missing values by variable: f 2, x 2\n";
constexpr std::string_view all_text =
    "9999/- they were all associated with missing values in the response variable\n"
    "9999/- missing values by variable: x 1\n";

TEST(Design, MissingValues)
{
  // records: 1 whole, 2 f missing, 3 x missing, 4 f and x missing, 5 y missing, 6 f and y missing, 7 whole
  const std::vector<double> values{1, 1, 10, 1, 1,  NA, 1,  20, 1, 2,  3, 1,  NA, 1, 3,  NA, 2, NA,
                                   1, 4, 2,  2, 50, 1,  NA, NA, 2, 60, 1, NA, 3,  2, 70, 1,  7};
  struct Row {
    std::string_view x;  // na_action
    bool mv;
    std::string rows;  // design: mu 1, f 2-4, x 5, then mv
    std::string told;
  };
  const Row table[] = {
      {"include", false, "1:1 2:1 5:10 | 1\n1:1 5:20 | 2\n1:1 4:1 | 3\n1:1 | 4\n1:1 4:1 5:70 | 7\n",
       text("1/- 2", dropped_text, "1/- 4 missing value(s) detected in the design variables:\n", zeros_text,
            not_counting_text)},
      {"include", true,
       "1:1 2:1 5:10 | 1\n1:1 5:20 | 2\n1:1 4:1 | 3\n1:1 | 4\n1:1 3:1 5:50 6:-1 | 0\n1:1 5:60 7:-1 | 0\n"
       "1:1 4:1 5:70 | 7\n",
       text("1/- 4 missing value(s) detected in the design variables:\n", zeros_text, not_counting_text)},
      {"omit", false, "1:1 2:1 5:10 | 1\n1:1 4:1 5:70 | 7\n",
       text("1/- 2", dropped_text, "2/- 3", removed_text, not_counting_text)},
      {"omit", true, "1:1 2:1 5:10 | 1\n1:1 3:1 5:50 6:-1 | 0\n1:1 4:1 5:70 | 7\n",
       text("2/- 4", removed_text, not_counting_text)},
      {"fail", false, "1:1 2:1 5:10 | 1\n1:1 4:1 5:70 | 7\n",
       text("1/- 5", dropped_text, "1/- 4 missing value(s) detected in the design variables:\n",
            annulled_text, not_counting_text)},
      {"fail", true,
       "1:1 2:1 5:10 | 1\n1:1 5:20 6:-1 | 0\n1:1 4:1 7:-1 | 0\n1:1 8:-1 | 0\n1:1 3:1 5:50 9:-1 | 0\n"
       "1:1 5:60 10:-1 | 0\n1:1 4:1 5:70 | 7\n",
       text("1/- 4 missing value(s) detected in the design variables:\n", annulled_text, not_counting_text)},
  };
  for (const Row& row : table) {
    DataRoad road;
    form(road, values, row.mv ? R"("fixed":"f+x","sparse":"mv")" : R"("fixed":"f+x")",
         text(R"(,"na_action":{"x":")", row.x, "\"}"));
    EXPECT_EQ(road.design_rows(), row.rows) << row.x << row.mv;
    EXPECT_EQ(messages_text(road.eh), row.told) << row.x << row.mv;
    if (row.mv) {
      EXPECT_EQ(road.terms.rows.back().equations, std::ssize(road.design.mv));
    }
  }
}

TEST(Design, MissingOnlyTogether)
{
  const std::vector<double> values{1, 1, NA, 1, NA, 2, 1, 3, 1, 4, 3, 2, 5, 1, 6};
  const std::string one = "1/- 1 missing value(s) detected in the design variables:\n";
  for (const auto& [x, told] :
       {std::pair<std::string, std::string>{"include", text(one, zeros_text, all_text)},
        {"omit", text(one, all_text)},
        {"fail", text(one, all_text)}}) {
    DataRoad road;
    form(road, values, R"("fixed":"x")", text(R"(,"na_action":{"x":")", x, "\"}"));
    EXPECT_EQ(messages_text(road.eh), text("1/- 1", dropped_text, told)) << x;
    EXPECT_EQ(road.design.rows(), 2);
  }
  DataRoad forbidden;
  form(forbidden, values, R"("fixed":"mu")", R"(,"na_action":{"y":"fail"})");
  EXPECT_TRUE(has_message(forbidden.eh, "1 missing value(s) detected in the response variable"));
  EXPECT_TRUE(forbidden.eh.terminate());
}

TEST(Design, FewRecords)
{
  DataRoad none;
  form(none, {1, 1, 1, 1, NA, 2, 1, 1, 1, NA}, R"("fixed":"f")");
  EXPECT_EQ(messages_text(none.eh),
            text("1/- 2", dropped_text, "!4/3 no records included in the design matrix\n"));
  DataRoad estimated;  // all of them: nothing is observed
  form(estimated, {1, 1, 1, 1, NA, 2, 1, 1, 1, NA}, R"("fixed":"f","sparse":"mv")");
  EXPECT_TRUE(has_message(estimated.eh, "no records included in the design matrix"));
  DataRoad one;
  form(one, {1, 1, 1, 1, 5}, R"("fixed":"f")");
  EXPECT_EQ(messages_text(one.eh), "3/- only 1 record included in the design matrix\n");
  EXPECT_EQ(one.design_rows(), "1:1 2:1 | 5\n");
  DataRoad unused;  // a factor that is missing throughout, counted as zeros, and one without some levels
  form(unused, {NA, 1, 1, 1, 5, NA, 1, 1, 1, 6}, R"("fixed":"f+g")", R"(,"na_action":{"x":"include"})");
  EXPECT_EQ(unused.design_rows(), "1:1 5:1 | 5\n1:1 5:1 | 6\n");
}

TEST(Design, Weights)
{
  DataRoad road;
  form(road, {1, 1, 1, 2, 1, 2, 1, 1, 0, 2, 3, 1, 1, -3, 3, 1, 1, 1, NA, 4, 2, 2, 1, .5, 5},
       R"("fixed":"mu","weights":"w")", R"(,"na_action":{"x":"include"})");
  EXPECT_EQ(road.design.weight, (std::vector<double>{2, 0, 0, 0, 0.5}));
  EXPECT_EQ(road.design.negative_weights, 1);
  EXPECT_EQ(road.design.zero_weights, 2);
  EXPECT_EQ(road.design.rows(), 5);
  DataRoad annulled;  // a missing weight is a missing design value
  form(annulled, {1, 1, 1, 2, 1, 2, 1, 1, NA, 2, 2, 1, 1, 1, 3}, R"("fixed":"mu","weights":"w")");
  EXPECT_EQ(annulled.design.record, (std::vector<std::int64_t>{1, 3}));
  DataRoad nothing;
  form(nothing, {1, 1, 1, 0, 1, 2, 1, 1, -1, 2}, R"("fixed":"mu","weights":"w")");
  EXPECT_TRUE(has_message(nothing.eh, "no records included in the design matrix"));
}

TEST(Design, Refusals)
{
  DataRoad above;
  form(above, {1, 1, 1, 1, 1, 4, 1, 1, 1, 2, 5, 1, 1, 1, 3}, R"("fixed":"g","random":"g:f")");
  EXPECT_TRUE(has_message(above.eh,
                          "misspecification of model term g:f, actual number of levels exceeds the number "
                          "declared [3], after processing 2 of 3 records"));
  EXPECT_TRUE(has_message(above.eh, "level 4 of f in data record 2"));
  EXPECT_TRUE(
      has_message(above.eh, "the delared number of levels for f should be increased from 3 to about 5"));
  EXPECT_TRUE(above.eh.terminate());

  DataRoad unused;  // the factor isn't in the model
  form(unused, {1, 1, 1, 1, 1, 4, 1, 1, 1, 2}, R"("fixed":"g")");
  EXPECT_FALSE(unused.eh.terminate());

  DataRoad large;
  form(large, {1, 1, 1e200, 1, 1, 2, 1, 1e200, 1, 2}, R"("fixed":"x:x")");
  EXPECT_TRUE(has_message(large.eh, "the value of model term x:x is too large in data record 1"));

  DataRoad miscount;  // tables that don't belong together
  form(miscount, {1, 1, 1, 1, 1, 2, 1, 1, 1, 2}, R"("fixed":"f")");
  ERROR_HANDLER eh;
  miscount.terms.rows.back().equations = 2;
  AIDSGN(eh, miscount.options, miscount.variables, miscount.store, miscount.factors, miscount.terms,
         miscount.info, miscount.design);
  EXPECT_TRUE(has_message(eh, "issue forming the design matrix (f), "));
}

TEST(Design, EquationsBeyondTheirNumberType)
{
  DataRoad road;
  road.matrix("d", 1, 3, {1, 1, 1});
  EXPECT_FALSE(road.form(R"({"dataset":{"name":"d","number_of_observations":1,"variables":[
      {"name":"a","field_type":"vt_integer_factor_1_to_n","number_of_levels":2000000000},
      {"name":"b","field_type":"vt_integer_factor_1_to_n","number_of_levels":2000000000},{"name":"y"}]},
      "model":{"response":"y","fixed":"a:b:a:b"}})"));
  EXPECT_TRUE(has_message(road.eh, "equations"));
}

TEST(DataSummary, CountsAndComplaints)
{
  DataRoad road;
  form(road, {1, 1, 0, 1, 4, NA, 1, 6, 1, 4, 3, 1, NA, 1, 4, 3, 1, -3, 1, NA}, R"("fixed":"f")");
  DATA_SUMMARY summary;
  AIDSUM(road.eh, road.variables, road.store, summary);
  EXPECT_EQ(summary[0].level_counts, (std::vector<std::int64_t>{1, 0, 2}));
  EXPECT_EQ(summary[0].missing, 1);
  EXPECT_EQ(summary[2].records, 4);
  EXPECT_EQ(summary[2].missing, 1);
  EXPECT_EQ(summary[2].zeros, 1);
  EXPECT_DOUBLE_EQ(summary[2].mean, 1.0);
  EXPECT_EQ(summary[2].minimum, -3.0);
  EXPECT_EQ(summary[2].maximum, 6.0);
  const std::string lines = AIDDIS(road.eh, road.variables, summary);
  EXPECT_NE(lines.find("Level"), std::string::npos);
  EXPECT_NE(lines.find("3 levels"), std::string::npos);

  ERROR_HANDLER eh;
  ADJUST_DATA_SUMMARY(eh, road.variables, summary, 3);
  EXPECT_TRUE(clean(eh));
  ADJUST_DATA_SUMMARY(eh, road.variables, summary, 5);
  EXPECT_EQ(messages_text(eh), "3/- no variation in the response variable\n");
}

}  // namespace
}  // namespace tolvan
