// Ranges about which points tell nothing, and the others that are offered, judged by the matrices that the models form.
#include <gtest/gtest.h>

#include <cmath>

#include "varstruct/lost_ranges.h"
#include "varstruct/make_component.h"

namespace tolvan {
namespace {

struct Model {
  const char* name;
  std::int64_t sub_code, selector;
  std::vector<double> values;   // its own parameters, the ranges first
  std::size_t ranges;
  double short_range, long_range;
};

const Model models[] = {
    {"exp", 1, 10, {0.5}, 1, 1e-7, 0.999},     {"ieuc", 3, 14, {0.5}, 1, 1e-7, 0.999}, {"gau", 2, 11, {0.5}, 1, 1e-7, 0.99999},
    {"aexp", 1, 16, {0.5, 0.5}, 2, 1e-7, 0.999}, {"agau", 2, 17, {0.5, 0.5}, 2, 1e-7, 0.99999}, {"sph", 4, 15, {3.0}, 1, 0.2, 500.0},
    {"cir", 5, 22, {3.0}, 1, 0.2, 500.0},      {"lvr", 7, 19, {6.0}, 1, 0.2, 500.0},   {"lin", 6, 18, {0.15}, 1, 30.0, 0.001},
    {"mtrn", 9, 23, {1.5, 0.5, 1.0, 0.0, 2.0}, 1, 0.02, 300.0},
};

/// A 5 x 4 layout of plots a unit apart in both directions.
VARIANCE_MODEL field(const Model& m)
{
  VARIANCE_MODEL model;
  model.coordinates.emplace_back();
  for (int i = 0; i < 20; ++i) {
    model.coordinates[0].x.push_back(i / 4);
    model.coordinates[0].y.push_back(i % 4);
  }
  STRUCTURE_ROW row{.size = 20, .parameters = static_cast<std::int64_t>(m.values.size()), .model = 6, .first = 0, .order = m.sub_code == 9 ? 5 : 1};
  row.sub_code = m.sub_code;
  row.selector = m.selector;
  row.coordinates = 0;
  model.residual.push_back(row);
  for (const double v : m.values) model.parameters.push_back({.value = v, .start = v});
  if (m.sub_code == 9) {
    for (std::size_t k = 1; k < 5; ++k) model.parameters[k].constraint = Constraint::F;
  }
  return model;
}

/// The mean over the points of their largest and smallest correlations, points apart in `direction` only where it is 1 or 2.
std::pair<double, double> correlations(const VARIANCE_MODEL& given, int direction)
{
  VARIANCE_MODEL model = given;
  const auto component = make_component(model.residual[0], model);
  ERROR_HANDLER eh;
  FORM_CONTEXT context{eh, model, model.residual[0], 1, 0.99, 0.0};
  component->form(context);
  std::vector<double> r(400);
  component->covariance(r.data());
  double largest = 0.0, smallest = 0.0;
  for (std::size_t i = 0; i < 20; ++i) {
    double most = 0.0, least = 1.0;
    for (std::size_t j = 0; j < 20; ++j) {
      const bool apart = direction == 0 ? i != j : direction == 1 ? i / 4 != j / 4 && i % 4 == j % 4 : i / 4 == j / 4 && i % 4 != j % 4;
      if (!apart) continue;
      most = std::max(most, r[i + 20 * j]);
      least = std::min(least, r[i + 20 * j]);
    }
    largest += most / 20.0;
    smallest += least / 20.0;
  }
  return {largest, smallest};
}

TEST(LostRanges, AreFoundAndOthersOffered)
{
  for (const Model& m : models) {
    SCOPED_TRACE(m.name);
    VARIANCE_MODEL model = field(m);
    EXPECT_TRUE(lost_ranges(model, m.values, false).empty());
    for (std::size_t k = 0; k < m.ranges; ++k) {
      for (const bool is_short : {true, false}) {
        std::vector<double> values = m.values;
        values[k] = is_short ? m.short_range : m.long_range;
        const std::vector<LOST_RANGE> lost = lost_ranges(model, values, false);
        ASSERT_EQ(lost.size(), 1u);
        EXPECT_EQ(lost[0].parameter, static_cast<std::int64_t>(k));
        EXPECT_EQ(lost[0].why, is_short ? Lost::none_alike : Lost::all_alike);
        // From the nearest points to the farthest, in the matrix that is formed.
        const int direction = m.ranges == 2 ? static_cast<int>(k) + 1 : 0;
        VARIANCE_MODEL at = model;
        at.parameters[k].value = lost[0].others.front();
        EXPECT_NEAR(correlations(at, direction).first, 0.5, 0.2);
        at.parameters[k].value = lost[0].others.back();
        EXPECT_NEAR(correlations(at, direction).second, 0.5, 0.2);
        model.parameters[k].constraint = Constraint::F;
        EXPECT_TRUE(lost_ranges(model, values, false).empty()) << "a fixed range stays";
        model.parameters[k].constraint = Constraint::P;
      }
    }
    EXPECT_EQ(ranges_with_kinks(model).size(), m.sub_code >= 4 && m.sub_code <= 7 ? 1u : 0u);
    EXPECT_EQ(lost_ranges(model, m.values, true).size(), m.ranges) << "all where the matrix could not be inverted";
  }
  VARIANCE_MODEL smooth = field(models[std::size(models) - 1]);
  smooth.parameters[1].constraint = Constraint::P;
  const std::vector<LOST_RANGE> failed = lost_ranges(smooth, {1.5, 10.0, 1.0, 0.0, 2.0}, true);
  ASSERT_EQ(failed.size(), 2u);
  EXPECT_EQ(failed[1].parameter, 1);
}

}  // namespace
}  // namespace tolvan
