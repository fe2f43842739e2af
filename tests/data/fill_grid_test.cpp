// Completed grids: which plots are added, and what is refused.
#include "data/fill_grid.h"

#include <array>
#include <set>

#include "base/text.h"
#include "data/data_road.h"

namespace tolvan {
namespace {

constexpr std::string_view field = R"("variables":[{"name":"trial","field_type":"vt_integer_factor"},
    {"name":"row","field_type":"vt_integer_factor"},{"name":"col","field_type":"vt_integer_factor_1_to_n"},{"name":"y"}])";

/// A field trial in the store: records of trial, row, column and yield.
struct FieldRoad : DataRoad {
  void plant(const std::vector<std::array<double, 4>>& plots)
  {
    std::vector<double> values;
    for (const auto& plot : plots) values.insert(values.end(), plot.begin(), plot.end());
    matrix("d", static_cast<std::int64_t>(plots.size()), 4, values);
    ASSERT_TRUE(
        read(text(R"({"dataset":{"name":"d","storage_order":"so_row_major","number_of_observations":)",
                  plots.size(), ",", field, "}}")))
        << messages_text(eh);
  }
  std::string text_of(std::size_t from) const
  {
    std::string out;
    for (auto r = static_cast<std::int64_t>(from); r < store.records(); ++r) {
      for (const double x : store.row(r)) out += is_no_value(x) ? std::string("NA ") : text(x, " ");
      out += "\n";
    }
    return out;
  }
};

TEST(FillGrid, AddsThePlotsThatAreMissing)
{
  // Trial 5 has rows 10..12 in an order of its own and columns 1..3, trial 2 one row and columns 2, 4.
  const std::vector<std::array<double, 4>> plots = {
      {5, 12, 1, 1}, {5, 10, 3, 2}, {5, 11, 2, 3}, {2, 11, 4, 4}, {2, 11, 2, 5}};
  FieldRoad road;
  road.plant(plots);
  FILLGRID(road.eh, road.variables, {.section = 1, .row = 2, .column = 3}, true, road.store);
  EXPECT_EQ(messages_text(road.eh),
            "1/- 5 records obtained from the data file\n"
            "9999/- 12 records required to complete the spatial grid\n"
            "9999/- 7 records being inserted to complete the grid\n");
  EXPECT_EQ(road.store.filled(), 7);
  // Levels by first appearance: trials 5 = 1, 2 = 2; rows 12 = 1, 10 = 2, 11 = 3.
  EXPECT_EQ(road.text_of(5), "2 3 3 NA \n1 2 1 NA \n1 2 2 NA \n1 3 1 NA \n1 3 3 NA \n1 1 2 NA \n1 1 3 NA \n");
  std::set<std::array<double, 3>> met;
  for (std::int64_t r = 0; r < road.store.records(); ++r) {
    const auto row = road.store.row(r);
    EXPECT_TRUE(met.insert({row[0], row[1], row[2]}).second);
  }

  // A single section has the levels that were declared: rows 1 and 3 of 3.
  FieldRoad single;
  single.plant({{1, 3, 1, 1}, {1, 1, 1, 2}});
  single.variables.row(3).levels = 2;
  FILLGRID(single.eh, single.variables, {.section = 1, .row = 2, .column = 3}, true, single.store);
  EXPECT_EQ(single.text_of(2), "1 2 2 NA \n1 1 2 NA \n");

  FieldRoad whole;
  whole.plant({{1, 1, 1, 1}, {1, 2, 1, 2}});
  FILLGRID(whole.eh, whole.variables, {.section = 0, .row = 2, .column = 3}, false, whole.store);
  EXPECT_EQ(whole.store.records(), 2);
  EXPECT_EQ(messages_text(whole.eh),
            "1/- 2 records obtained from the data file\n"
            "9999/- 2 records required to complete the spatial grid\n");
}

TEST(FillGrid, Complaints)
{
  struct Row {
    std::vector<std::array<double, 4>> plots;
    GRID_FACTORS factors;
    std::string_view told;
    bool has_mv = true;
  };
  const Row table[] = {
      {{{1, 1, 1, 0}, {1, NA, 2, 0}},
       {1, 2, 3},
       "!4/3 invalid Spatial Grid Values at record 2\n9999/3 row index 0 or column index 2 is invalid\n"},
      {{{1, 1, 1, 0}, {NA, 1, 2, 0}},
       {1, 2, 3},
       "!4/3 invalid Spatial Grid Values at record 2\n9999/3 its section is missing\n"},
      {{{9, 7, 1, 0}, {9, 7, 2, 0}, {2, 7, 1, 0}, {9, 7, 1, 0}, {9, 7, 1, 0}},
       {1, 2, 3},
       "!4/3 3 instances of row 7, column 1 in Section 9, aborting attempt to fillout data point grid\n"},
      {{{1, 1, 1, 0}, {2, 1, 1, 0}, {2, 2, 2000000000, 0}},
       {1, 2, 3},
       "!4/3 at record 3 Either Section, Row or Column is too large for Filling out the Grid of plots, "
       "Section = 2, Row = 2, Column = 2000000000\n9999/3 the grid has 2 rows and 2000000000 columns\n"},
      {{{1, 1, 1, 0.5}, {1, 2, 2, 1}},
       {0, 2, 4},  // a variate as column
       "!4/3 invalid Spatial Grid Values at record 1\n9999/3 row index 1 or column index 0 is invalid\n"},
      {{{1, 1, 1, 0}, {1, 2, 2000000000, 0}},
       {1, 2, 3},
       "!4/3 at record 2 Either Section, Row or Column is too large for Filling out the Grid of plots, "
       "Section = 1, Row = 2, Column = 2000000000\n9999/3 the grid has 2 rows and 2000000000 columns\n"},
      {{{1, 1, 1, 0}, {1, 2, 2, 0}},
       {1, 2, 3},
       "1/- 2 records obtained from the data file\n9999/- 4 records required to complete the spatial grid\n"
       "!4/3 you must include mv in the linear model if you want to fill-out the spatial grid\n",
       false},
  };
  for (const Row& row : table) {
    FieldRoad road;
    road.plant(row.plots);
    FILLGRID(road.eh, road.variables, row.factors, row.has_mv, road.store);
    EXPECT_EQ(messages_text(road.eh), row.told);
    EXPECT_EQ(road.store.records(), static_cast<std::int64_t>(row.plots.size()));
    EXPECT_EQ(road.store.filled(), 0);
  }
}

}  // namespace
}  // namespace tolvan
