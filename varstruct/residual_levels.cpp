// The levels of the records of a residual section in the components of its product.  Routine: L_FIND_LEVELS.
#include "varstruct/residual_levels.h"

#include <algorithm>

#include "base/numbers.h"
#include "base/text.h"
#include "varstruct/coordinates.h"
#include "varstruct/distance_setup.h"
#include "varstruct/labels.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {

namespace {

/// What tells the level of a record in one component: a value, or a pair of them.
struct KEY {
  double x = 0.0, y = 0.0;
  friend bool operator<(const KEY& a, const KEY& b) { return a.x < b.x || (a.x == b.x && a.y < b.y); }
  friend bool operator==(const KEY& a, const KEY& b) { return a.x == b.x && a.y == b.y; }
};

/// The key of one record; no_value where a value is missing.
KEY key_of(const LEVEL_PLAN& plan, const DATA_STORE& store, const DESIGN_MTX& design, std::int64_t row)
{
  const auto r = static_cast<std::size_t>(row);
  switch (plan.reads) {
    case LEVEL_PLAN::Reads::units:
      return {static_cast<double>(design.unit_of(r)), 0.0};
    case LEVEL_PLAN::Reads::trait:
      return {static_cast<double>(design.trait_of(r)), 0.0};
    case LEVEL_PLAN::Reads::column: {
      const auto data = store.row(design.record[r] - 1);
      KEY key{data[plan.column], plan.pair ? data[plan.second] : 0.0};
      if (is_no_value(key.x) || is_no_value(key.y)) key.x = no_value;
      return key;
    }
  }
  return {};
}

}  // namespace

bool is_metric(const std::string& function)
{
  const MODEL_REQUEST asked = model_request(function);
  return asked.model != nullptr && asked.model->code == 6;
}

LEVEL_PLAN plan_of(const FACTOR_TABLE& factors, const RESIDUAL_COMPONENT& component)
{
  LEVEL_PLAN plan;
  plan.metric = is_metric(component.function);
  if (is_units(factors, component.factor)) return plan;
  if (is_trait(factors, component.factor)) {
    plan.reads = LEVEL_PLAN::Reads::trait;
    plan.levels = factors.row(component.factor).levels;
    return plan;
  }
  plan.reads = LEVEL_PLAN::Reads::column;
  const FACTOR_ROW& f = factors.row(component.factor);
  const std::int64_t x = data_row(factors, component.factor);
  plan.known = x > 0;
  plan.levels = f.levels;
  if (x == 0) return plan;
  plan.column = static_cast<std::size_t>(factors.row(x).variable - 1);
  const std::int64_t y = f.second > 0 ? data_row(factors, f.second) : 0;
  plan.pair = y > 0;
  if (plan.pair) plan.second = static_cast<std::size_t>(factors.row(y).variable - 1);
  plan.coded = !plan.pair && factors.row(x).is_factor;
  if (plan.coded) plan.levels = factors.row(x).levels;
  return plan;
}

void L_FIND_LEVELS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
                   const DATA_STORE& store, const DESIGN_MTX& design, const std::vector<std::int64_t>& rows,
                   const LEVEL_PLAN& plan, std::int64_t points, bool all_levels,
                   RESIDUAL_COMPONENT& component, std::vector<std::int64_t>& level)
{
  const Frame here{eh, __func__};
  const std::size_t n = rows.size();
  std::vector<KEY> keys(n);
  for (std::size_t i = 0; i < n; ++i) {
    keys[i] = key_of(plan, store, design, rows[i]);
    if (!is_no_value(keys[i].x)) {
      if (!plan.coded || keys[i].x <= static_cast<double>(plan.levels)) continue;
      // Data keep levels beyond the declared ones, with a warning; a place in the layout they have not.
      const FACTOR_ROW& f = factors.row(component.factor);
      const std::int64_t record = design.record[static_cast<std::size_t>(rows[i])];
      eh.error(text("misspecification of model term ", f.shown(), ", actual number of levels exceeds the number declared [",
                    plan.levels, "], after processing ", record, " of ", store.records(), " records"));
      eh.continuation(text("level ", keys[i].x, " of ", component_label(f), " in data record ", record));
      return;
    }
    eh.error("R structures do not match records in data.");
    eh.continuation(text("data record ", design.record[static_cast<std::size_t>(rows[i])],
                         " has no level in ", component_label(factors.row(component.factor))));
    return;
  }
  if (plan.metric && points > 0) {
    PLACES places;
    std::vector<double> x(n), y(plan.pair ? n : 0);
    for (std::size_t i = 0; i < n; ++i) {
      x[i] = keys[i].x;
      if (plan.pair) y[i] = keys[i].y;
    }
    AIDPOW(eh, x, y, points, places);
    if (eh.terminate()) {
      eh.continuation("failed while setting up the power model");
      return;
    }
    component.size = points;
    component.coordinates = std::move(places.at);
    level = std::move(places.level);
    LEVEL_COORDINATES(eh, variables, factors, component.factor, component.coordinates);
    return;
  }
  level.assign(n, 0);
  std::vector<KEY> found;  // of the levels
  if (plan.reads == LEVEL_PLAN::Reads::trait || (plan.coded && all_levels)) {
    for (std::size_t i = 0; i < n; ++i) level[i] = static_cast<std::int64_t>(keys[i].x) - 1;
    for (std::int64_t l = 1; l <= plan.levels; ++l) found.push_back({static_cast<double>(l), 0.0});
  } else {
    found = keys;
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    for (std::size_t i = 0; i < n; ++i) {
      level[i] = std::lower_bound(found.begin(), found.end(), keys[i]) - found.begin();
    }
  }
  component.size = static_cast<std::int64_t>(found.size());
  component.coordinates = {};
  if (!plan.metric) return;
  for (const KEY& point : found) {
    component.coordinates.x.push_back(point.x);
    if (plan.pair) component.coordinates.y.push_back(point.y);
  }
  if (plan.known && plan.reads == LEVEL_PLAN::Reads::column) {
    LEVEL_COORDINATES(eh, variables, factors, component.factor, component.coordinates);
  }
}

}  // namespace tolvan
