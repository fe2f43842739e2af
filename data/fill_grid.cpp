#include "data/fill_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <numeric>
#include <vector>

#include "base/text.h"
#include "data/label_text.h"
#include "data/level_coding.h"

namespace tolvan {

namespace {

/// The order of one factor's levels along its side of the grid; positions from 1.  Empty lists: a level is
/// its own position.
struct Side {
  std::size_t variable = 0;  // from 0
  std::vector<std::int64_t> position_of, level_at;

  /// 0 where the record has none.
  std::int64_t position(std::span<const double> row) const
  {
    const double x = row[variable];
    if (is_no_value(x) || x < 1.0 || x != std::floor(x) || x > static_cast<double>(most_levels)) return 0;
    const auto level = static_cast<std::size_t>(x);
    if (position_of.empty()) return static_cast<std::int64_t>(x);
    return level < position_of.size() ? position_of[level] : 0;
  }
  std::int64_t level(std::int64_t position) const
  {
    return level_at.empty() ? position : level_at[static_cast<std::size_t>(position)];
  }
  /// A position as the user knows it: the label of its level, or its number in the data.
  std::string name(const VARIABLE_TABLE& variables, std::int64_t position) const
  {
    const VARIABLE& factor = variables.rows[variable];
    const std::int64_t l = level(position);
    return l <= factor.labels.size() ? factor.labels.label(l) : text(l + factor.indexed_from - 1);
  }
};

Side side_of(const VARIABLE_TABLE& variables, std::int64_t row)
{
  Side side{static_cast<std::size_t>(row - 1), {}, {}};
  const LEVEL_TABLE& labels = variables.row(row).labels;
  const std::int64_t n = labels.size();
  std::vector<std::int64_t> number(static_cast<std::size_t>(n) + 1);
  for (std::int64_t l = 1; l <= n; ++l) {
    const auto value = whole_number(labels.label(l));
    if (!value) return side;
    number[static_cast<std::size_t>(l)] = *value;
  }
  side.level_at.resize(number.size());
  std::iota(side.level_at.begin(), side.level_at.end(), std::int64_t{0});
  std::sort(side.level_at.begin() + 1, side.level_at.end(), [&number](std::int64_t a, std::int64_t b) {
    return number[static_cast<std::size_t>(a)] < number[static_cast<std::size_t>(b)];
  });
  if (n == 0) side.level_at.clear();
  side.position_of.resize(side.level_at.size());
  for (std::size_t p = 1; p < side.level_at.size(); ++p)
    side.position_of[static_cast<std::size_t>(side.level_at[p])] = static_cast<std::int64_t>(p);
  return side;
}

/// The grid of one section.
struct Section {
  std::int64_t first_row = std::numeric_limits<std::int64_t>::max(), last_row = 0;
  std::int64_t first_column = std::numeric_limits<std::int64_t>::max(), last_column = 0;
  std::int64_t begin = 0;  // its first plot among those of all sections

  std::int64_t columns() const { return last_column - first_column + 1; }
  std::int64_t plots() const { return (last_row - first_row + 1) * columns(); }
  std::int64_t plot(std::int64_t row, std::int64_t column) const
  {
    return begin + (row - first_row) * columns() + column - first_column;
  }
};

struct Grid {
  Side row, column, section;
  bool sectioned = false;
  std::map<std::int64_t, Section> sections{};  // by position
  std::int64_t plots = 0;

  std::int64_t section_of(std::span<const double> r) const { return sectioned ? section.position(r) : 1; }
  std::string section_name(const VARIABLE_TABLE& variables, std::int64_t position) const
  {
    return sectioned ? section.name(variables, position) : text(position);
  }
};

/// L_MEASURE_GRID: the extent of each section.
void L_MEASURE_GRID(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_STORE& store, Grid& grid)
{
  const Frame here{eh, __func__};
  std::span<const double> record;
  for (std::int64_t r = 0; r < store.records(); ++r) {
    if (!DST_READ_ROW(eh, store, r, record)) return;
    const std::int64_t i = grid.row.position(record);
    const std::int64_t j = grid.column.position(record);
    const std::int64_t s = grid.section_of(record);
    if (i == 0 || j == 0 || s == 0) {
      eh.error(text("invalid Spatial Grid Values at record ", r + 1));
      eh.continuation(s == 0 ? std::string("its section is missing")
                             : text("row index ", i, " or column index ", j, " is invalid"));
      return;
    }
    Section& section = grid.sections[s];
    section.first_row = std::min(section.first_row, i);
    section.last_row = std::max(section.last_row, i);
    section.first_column = std::min(section.first_column, j);
    section.last_column = std::max(section.last_column, j);
  }
  if (grid.sections.size() != 1) return;
  Section& whole = grid.sections.begin()->second;
  whole.first_row = whole.first_column = 1;
  whole.last_row = std::max(whole.last_row, variables.rows[grid.row.variable].levels);
  whole.last_column = std::max(whole.last_column, variables.rows[grid.column.variable].levels);
}

/// L_LAY_OUT_SECTIONS: numbers the plots of all sections; a hundred for each record are taken for an error.
void L_LAY_OUT_SECTIONS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_STORE& store,
                        Grid& grid)
{
  const Frame here{eh, __func__};
  const std::int64_t most = std::max<std::int64_t>(1000000, 100 * store.records());
  for (auto& [number, section] : grid.sections) {
    section.begin = grid.plots;
    grid.plots += std::min(section.plots(), most + 1);
    if (grid.plots <= most) continue;
    std::int64_t farthest = 0, reach = -1;  // the record of the section that lies farthest out
    for (std::int64_t r = 0; r < store.records(); ++r) {
      const auto record = store.row(r);
      if (grid.section_of(record) != number) continue;
      const std::int64_t out = std::max(grid.row.position(record), grid.column.position(record));
      if (out > reach) farthest = r;
      reach = std::max(reach, out);
    }
    const auto record = store.row(farthest);
    eh.error(text("at record ", farthest + 1,
                  " Either Section, Row or Column is too large for Filling out the Grid of plots, Section = ",
                  grid.section_name(variables, number), ", Row = ",
                  grid.row.name(variables, grid.row.position(record)), ", Column = ",
                  grid.column.name(variables, grid.column.position(record))));
    eh.continuation(text("the grid has ", section.last_row - section.first_row + 1, " rows and ", section.columns(),
                         " columns"));
    return;
  }
}

/// L_MARK_PLOTS: which plots have a record; none may have two.
void L_MARK_PLOTS(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const DATA_STORE& store,
                  const Grid& grid, std::vector<bool>& met)
{
  const Frame here{eh, __func__};
  const auto plot_of = [&](std::int64_t r) {  // -1 where the row could not be read back
    const auto record = store.row(r);
    const auto section = grid.sections.find(grid.section_of(record));
    if (section == grid.sections.end()) return std::int64_t{-1};
    return section->second.plot(grid.row.position(record), grid.column.position(record));
  };
  met.assign(static_cast<std::size_t>(grid.plots), false);
  for (std::int64_t r = 0; r < store.records(); ++r) {
    const std::int64_t plot = plot_of(r);
    if (plot < 0) break;
    if (!met[static_cast<std::size_t>(plot)]) {
      met[static_cast<std::size_t>(plot)] = true;
      continue;
    }
    std::int64_t instances = 0;
    for (std::int64_t k = 0; k < store.records(); ++k) instances += plot_of(k) == plot ? 1 : 0;
    const auto record = store.row(r);
    eh.error(text(instances, " instances of row ", grid.row.name(variables, grid.row.position(record)),
                  ", column ", grid.column.name(variables, grid.column.position(record)), " in Section ",
                  grid.section_name(variables, grid.section_of(record)),
                  ", aborting attempt to fillout data point grid"));
    return;
  }
  DST_CHECK(eh, store);
}

/// L_ADD_PLOTS: writes the records of the plots that were not met.
void L_ADD_PLOTS(ERROR_HANDLER& eh, const Grid& grid, const std::vector<bool>& met, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  std::vector<double> added(static_cast<std::size_t>(store.width()), no_value);
  for (const auto& [number, section] : grid.sections) {
    if (grid.sectioned) added[grid.section.variable] = static_cast<double>(grid.section.level(number));
    for (std::int64_t i = section.first_row; i <= section.last_row; ++i) {
      added[grid.row.variable] = static_cast<double>(grid.row.level(i));
      for (std::int64_t j = section.first_column; j <= section.last_column; ++j) {
        if (met[static_cast<std::size_t>(section.plot(i, j))]) continue;
        added[grid.column.variable] = static_cast<double>(grid.column.level(j));
        DST_WRITE_ROW(eh, store, added);
        if (eh.terminate()) return;
      }
    }
  }
}

}  // namespace

void FILLGRID(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const GRID_FACTORS& factors, bool has_mv,
              DATA_STORE& store)
{
  const Frame here{eh, __func__};
  Grid grid{
      .row = side_of(variables, factors.row), .column = side_of(variables, factors.column), .section = {}};
  grid.sectioned = factors.section > 0;
  if (grid.sectioned) grid.section = side_of(variables, factors.section);
  L_MEASURE_GRID(eh, variables, store, grid);
  if (eh.terminate()) return;
  L_LAY_OUT_SECTIONS(eh, variables, store, grid);
  if (eh.terminate()) return;
  std::vector<bool> met;
  L_MARK_PLOTS(eh, variables, store, grid, met);
  if (eh.terminate()) return;
  eh.note(text(store.records(), " records obtained from the data file"));
  eh.continuation(text(grid.plots, " records required to complete the spatial grid"));
  const std::int64_t added = grid.plots - store.records();
  if (added == 0) return;
  if (!has_mv) {
    eh.error("you must include mv in the linear model if you want to fill-out the spatial grid");
    return;
  }
  eh.continuation(text(added, " records being inserted to complete the grid"));
  L_ADD_PLOTS(eh, grid, met, store);
  store.set_filled(added);
}

}  // namespace tolvan
