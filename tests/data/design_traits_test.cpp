// Several response variables: the order of the analysis records, missing responses, what dropping does to the balance.
#include <map>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

/// Variables f (2 levels), x, y1, y2, w of a matrix by rows.
bool form(DataRoad& road, const std::vector<double>& values, std::string_view model, std::string_view more = "")
{
  const auto records = static_cast<std::int64_t>(values.size() / 5);
  road.matrix("d", records, 5, values);
  return road.form(text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)", records,
                        R"(,"variables":[{"name":"f","field_type":"vt_integer_factor_1_to_n","number_of_levels":2},
      {"name":"x"},{"name":"y1"},{"name":"y2"},{"name":"w"}]},"model":{"response":["y1","y2"],)", model, "}", more, "}"));
}

/// "record.trait" of each analysis record.
std::string order(const DESIGN_MTX& design)
{
  std::string out;
  for (std::size_t i = 0; i < design.record.size(); ++i)
    out += text(out.empty() ? "" : " ", design.record[i], ".", design.trait[i]);
  return out;
}

const std::vector<double> complete{1, 10, 1, 2, 5, 2, 20, 3, 4, 6, 1, 30, 5, 6, 7};
//                                 f   x y1 y2  w

TEST(DesignTraits, RowsOfTermsWithTraits)
{
  struct Case {
    const char* terms;
    const char* rows;
  };
  const Case cases[] = {
      {"trait", "1:1 2:1 | 1\n1:1 3:1 | 2\n1:1 2:1 | 3\n1:1 3:1 | 4\n1:1 2:1 | 5\n1:1 3:1 | 6\n"},
      {"trait:x", "1:1 2:10 | 1\n1:1 3:10 | 2\n1:1 2:20 | 3\n1:1 3:20 | 4\n1:1 2:30 | 5\n1:1 3:30 | 6\n"},
      {"trait:f", "1:1 2:1 | 1\n1:1 4:1 | 2\n1:1 3:1 | 3\n1:1 5:1 | 4\n1:1 2:1 | 5\n1:1 4:1 | 6\n"},
      {"at(trait,2):x", "1:1 | 1\n1:1 2:10 | 2\n1:1 | 3\n1:1 2:20 | 4\n1:1 | 5\n1:1 2:30 | 6\n"},
      {"con(trait)", "1:1 2:1 | 1\n1:1 2:-1 | 2\n1:1 2:1 | 3\n1:1 2:-1 | 4\n1:1 2:1 | 5\n1:1 2:-1 | 6\n"},
      {"units", "1:1 2:1 | 1\n1:1 2:1 | 2\n1:1 3:1 | 3\n1:1 3:1 | 4\n1:1 4:1 | 5\n1:1 4:1 | 6\n"},
      {"uni(f,1):trait", "1:1 2:1 | 1\n1:1 3:1 | 2\n1:1 | 3\n1:1 | 4\n1:1 4:1 | 5\n1:1 5:1 | 6\n"},
  };
  for (const Case& c : cases) {
    DataRoad road;
    ASSERT_TRUE(form(road, complete, text(R"("fixed":"mu","sparse":")", c.terms, "\""))) << c.terms << messages_text(road.eh);
    EXPECT_EQ(road.design_rows(), c.rows) << c.terms;
    EXPECT_EQ(order(road.design), "1.1 1.2 2.1 2.2 3.1 3.2");
    EXPECT_EQ(road.design.data_records, 3);
  }
}

TEST(DesignTraits, OrderOfTheResidual)
{
  struct Case {
    const char* residual;
    const char* order;
  };
  const Case cases[] = {
      {"units:us(trait)", "1.1 1.2 2.1 2.2 3.1 3.2"},
      {"id(units):us(trait)", "1.1 1.2 2.1 2.2 3.1 3.2"},
      {"us(trait):units", "1.1 2.1 3.1 1.2 2.2 3.2"},
      {"diag(trait):id(units)", "1.1 2.1 3.1 1.2 2.2 3.2"},
  };
  for (const Case& c : cases) {
    DataRoad road;
    ASSERT_TRUE(form(road, complete, text(R"("fixed":"trait:x","weights":"w","residual":")", c.residual, "\""))) << messages_text(road.eh);
    EXPECT_EQ(order(road.design), c.order) << c.residual;
    // Whatever the order, a record keeps its row.
    for (std::int64_t i = 0; i < road.design.rows(); ++i) {
      const auto k = static_cast<std::size_t>(i);
      const auto base = static_cast<std::size_t>(road.design.record[k] - 1) * 5;
      const auto t = static_cast<std::size_t>(road.design.trait[k]);
      EXPECT_EQ(road.design.response[k], complete[base + 1 + t]);
      EXPECT_EQ(road.design.weight[k], complete[base + 4]);
      ASSERT_EQ(road.design.equations(i).size(), 2U);
      EXPECT_EQ(road.design.equations(i)[1], static_cast<std::int32_t>(t));
      EXPECT_EQ(road.design.values(i)[1], complete[base + 1]);
    }
  }
}

TEST(DesignTraits, MissingResponses)
{
  const std::vector<double> values{1, 10, NA, 2, 1, 2, 20, 3, NA, 1, 1, 30, NA, NA, 1, 2, 40, 7, 8, 1};
  const std::string uneven =
      "3/- dropped records were not evenly distributed across the traits\n"
      "9999/- this will miss-align the residuals to any multivariate R structure that might be fitted [\n"
      "9999/- include the model term \"mv\" to restore the balance by estimating these missing values]\n";
  DataRoad dropped;
  ASSERT_TRUE(form(dropped, values, R"("fixed":"trait")"));
  EXPECT_EQ(order(dropped.design), "1.2 2.1 4.1 4.2");
  EXPECT_EQ(messages_text(dropped.eh),
            text("1/- 4 analysis records were dropped because the response variable was missing\n", uneven));

  DataRoad whole;  // a record without any response harms no balance
  ASSERT_TRUE(form(whole, {1, 1, NA, NA, 1, 1, 2, 3, 4, 1}, R"("fixed":"trait")"));
  EXPECT_EQ(messages_text(whole.eh), "1/- 2 analysis records were dropped because the response variable was missing\n");

  for (const bool trait_slow : {false, true}) {
    DataRoad estimated;
    ASSERT_TRUE(form(estimated, values,
                     text(R"("fixed":"trait","sparse":"mv","residual":")", trait_slow ? "us(trait):units" : "units:us(trait)", "\"")));
    EXPECT_EQ(order(estimated.design), trait_slow ? "1.1 2.1 3.1 4.1 1.2 2.2 3.2 4.2" : "1.1 1.2 2.1 2.2 3.1 3.2 4.1 4.2");
    EXPECT_EQ(estimated.terms.rows.back().equations, 4);
    EXPECT_EQ(messages_text(estimated.eh), "");
    // The equations of mv number the rows concerned in their order.
    std::int64_t k = 0;
    for (std::int64_t i = 0; i < estimated.design.rows(); ++i) {
      const auto equations = estimated.design.equations(i);
      if (equations.size() < 3) continue;
      EXPECT_EQ(equations.back(), estimated.terms.rows.back().first + k);
      EXPECT_EQ(estimated.design.values(i).back(), -1.0);
      EXPECT_EQ(estimated.design.response[static_cast<std::size_t>(i)], 0.0);
      ASSERT_LT(k, std::ssize(estimated.design.mv));
      EXPECT_EQ(estimated.design.mv[static_cast<std::size_t>(k++)], i);
    }
    EXPECT_EQ(k, 4);
  }
}

TEST(DesignTraits, MissingDesignValues)
{
  // x is missing in record 1, with both responses, and in record 2, with the second alone.
  const std::vector<double> values{1, NA, 1, 2, 1, 2, NA, NA, 4, 1, 1, 30, 5, 6, 1};
  DataRoad both;
  ASSERT_TRUE(form(both, values, R"("fixed":"trait:x")", R"(,"na_action":{"x":"include"})"));
  EXPECT_TRUE(has_message(both.eh, "2 missing value(s) detected in the design variables:"));  // each value once
  DataRoad one;  // the covariate of the first trait: it lacks where that trait was seen, in record 1
  ASSERT_TRUE(form(one, values, R"("fixed":"at(trait,1):x")", R"(,"na_action":{"x":"include"})"));
  EXPECT_TRUE(has_message(one.eh, "1 missing value(s) detected in the design variables:"));
  EXPECT_TRUE(has_message(one.eh, "not counting instances where the response (Y) was also missing"));
  DataRoad removed;
  ASSERT_TRUE(form(removed, values, R"("fixed":"at(trait,1):x")", R"(,"na_action":{"x":"omit"})"));
  EXPECT_EQ(order(removed.design), "1.2 2.2 3.1 3.2");
  EXPECT_TRUE(has_message(removed.eh, "it is not safe to remove missing values with a multivariate analysis because the residual structure "
                                      "(units.Traits) may be destroyed"));
  EXPECT_TRUE(has_message(removed.eh, "dropped records were not evenly distributed across the traits"));
}

TEST(DesignTraits, NamesOfTraits)
{
  DataRoad road;
  ASSERT_TRUE(form(road, complete, R"("fixed":"trait:f")"));
  std::string names;
  for (std::int64_t l = 1; l <= 4; ++l) names += level_name(road.eh, road.variables, road.factors, road.terms.rows.back(), l) + " ";
  EXPECT_EQ(names, "y1.1 y1.2 y2.1 y2.2 ");
}

}  // namespace
}  // namespace tolvan
